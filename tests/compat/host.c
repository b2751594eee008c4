/* A C host of the interface as it stood at one release: built against
 * that release's headers and against the current ones, both linked to the
 * current library, it must print the same. Each answer's size must come
 * back as the size of the struct this host knows: a library at least as
 * new fills all of it. */
#include <stdio.h>
#include <string.h>

#include <xrprocdetector/c_api.h>

#define CHECK(condition)                                                       \
  do {                                                                         \
    if (!(condition)) {                                                        \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);  \
      return 1;                                                                \
    }                                                                          \
  } while (0)

static void set(const char* name, const xrpd_cpuset* s) {
  char* list = xrpd_cpuset_to_list(s);
  printf("%s %s\n", name, list);
  xrpd_free(list);
}

int main(int argc, char** argv) {
  char* error = NULL;
  xrpd_source* source = xrpd_source_snapshot(argc > 1 ? argv[1] : "", &error);
  CHECK(source != NULL);
  xrpd_topology* t = xrpd_topology_read(source, NULL);
  xrpd_topology_info info;
  memset(&info, 0, sizeof info);
  info.size = sizeof info;
  CHECK(t != NULL && xrpd_topology_get(t, &info) == 0 && info.size == sizeof info);
  printf("packages %d cores %d kinds %d quota %g effective %d smt %d\n", info.packages,
         info.cores, info.core_kinds, info.cpu_quota, info.effective_processors, info.smt);
  set("online", &info.online);
  set("usable", &info.usable);
  xrpd_processor p;
  p.size = sizeof p;
  for (size_t i = 0; xrpd_topology_processor(t, i, &p) == 0; ++i) {
    CHECK(p.size == sizeof p);
    printf("cpu %u package %d core %d thread %d\n", p.cpu, p.package, p.core, p.thread);
  }
  xrpd_topology_close(t);
  xrpd_budget* budget = xrpd_budget_open_source(source, &error);
  xrpd_budget_reading r;
  r.size = sizeof r;
  CHECK(budget != NULL && xrpd_budget_read(budget, &r) == 0 && r.size == sizeof r);
  printf("budget quota %g effective %d\n", r.cpu_quota, r.effective_processors);
  xrpd_free(r.error);
  xrpd_budget_close(budget);
  xrpd_detection d;
  d.size = sizeof d;
  CHECK(xrpd_detect(XRPD_GENERATION_61, source, &d) == 0 && d.size == sizeof d);
  printf("6.1 %d %d %d %d\n", d.packages, d.cores, d.logical_processors, d.hyper_threading);
  xrpd_free(d.note);
  xrpd_free(d.error);
  xrpd_free(d.debug);
  xrpd_free(d.summary);
  xrpd_source_close(source);
  return 0;
}
