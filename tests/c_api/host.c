/* A C99 host of the C interface, built with -std=c99 -pedantic -Werror
   against the shared library: the answers of a snapshot with known counts
   (two packages of two cores of two threads) that no C++ or Python host
   reads (the counts, the C helpers of sets), the processor budget live,
   struct sizes, and the errors of a source that cannot be read.

     host SNAPSHOT_DIR */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <xrprocdetector/c_api.h>

static int failures = 0;

static void check(int ok, const char* what) {
  if (!ok) {
    printf("FAILED: %s\n", what);
    ++failures;
  }
}

static void snapshot(const char* dir) {
  char* error = NULL;
  xrpd_source* source = xrpd_source_snapshot(dir, &error);
  xrpd_topology_info info;
  xrpd_topology* t;
  char* list;
  check(source != NULL && error == NULL, "the snapshot is read");
  t = xrpd_topology_read(source, &error);
  info.size = sizeof info;
  check(t != NULL && xrpd_topology_get(t, &info) == 0, "the topology is read");
  check(info.packages == 2 && info.cores == 4 && info.processors == 8, "the topology's counts");
  list = xrpd_cpuset_to_list(&info.usable);
  check(strcmp(list, "0-7") == 0 && xrpd_cpuset_count(&info.online) == 8, "its sets");
  xrpd_free(list);
  check(xrpd_topology_numa_node(t, 0, NULL) == -1 && xrpd_topology_cache(t, 0, NULL) == -1,
        "no struct to fill, no answer");
  xrpd_topology_close(t);
  xrpd_source_close(source);
}

static void budget(void) {
  char* error = NULL;
  xrpd_budget* b = xrpd_budget_open(&error);
  xrpd_budget_reading r;
  check(b != NULL && error == NULL, "a budget opens");
  r.size = sizeof r;
  check(xrpd_budget_read(b, &r) == 0 && r.effective_processors >= 1, "a budget reads");
  check(r.usable_processors == xrpd_cpuset_count(&r.usable) && r.error == NULL, "its fields");
  xrpd_budget_close(b);
}

int main(int argc, char** argv) {
  char* error = NULL;
  xrpd_detection old;
  check(argc == 2, "usage: host SNAPSHOT_DIR");
  if (argc == 2) snapshot(argv[1]);
  budget();
  /* A caller that knows only the first fields gets only those. */
  memset(&old, 0x5a, sizeof old);
  old.size = offsetof(xrpd_detection, cores);
  check(xrpd_detect(XRPD_GENERATION_53, NULL, &old) == 0 && old.packages > 0 &&
            ((unsigned char*)&old)[offsetof(xrpd_detection, cores)] == 0x5a &&
            ((unsigned char*)&old)[sizeof old - 1] == 0x5a,
        "a smaller struct is filled no further than its size");
  check(old.size == offsetof(xrpd_detection, cores), "and its size comes back as it was");
  /* A caller that knows more fields than this library learns how many it filled. */
  {
    unsigned char later[sizeof(xrpd_processor) + 16];
    xrpd_processor* p = (xrpd_processor*)(void*)later;
    xrpd_topology* t = xrpd_topology_read(NULL, NULL);
    memset(later, 0x5a, sizeof later);
    p->size = sizeof later;
    check(xrpd_topology_processor(t, 0, p) == 0 && p->size == sizeof(xrpd_processor) &&
              later[sizeof later - 1] == 0x5a,
          "a larger struct gets back the size filled");
    xrpd_topology_close(t);
  }
  /* A message's parts: the file to blame alone, and why. */
  check(xrpd_source_snapshot("/no/such/snapshot", &error) == NULL &&
            strcmp(xrpd_error_part(error, XRPD_ERROR_FILE), "/no/such/snapshot") == 0 &&
            strstr(error, xrpd_error_part(error, XRPD_ERROR_WHY)) != NULL &&
            strcmp(xrpd_error_part(error, XRPD_ERROR_WHAT), "") == 0,
        "a message and its parts");
  xrpd_free(error);
  printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}
