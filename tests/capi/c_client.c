/* A client in C: selects among the addresses that it is given and prints what it is told. It ends
 * with 0 when there is a headend. Usage: c_client ADDRESS... */

#include <ahs/ahs.h>
#include <stdio.h>
#include <stdlib.h>

static void onResult(const ahs_result* result, void* context) {
  int* told = context;
  ++*told;
  printf("%s", ahs_status_name(result->status));
  for (size_t i = 0; i < result->headend_count; ++i) {
    printf(" %s", result->headends[i]);
  }
  printf("\n");
}

static int fail(const char* operation) {
  fprintf(stderr, "%s: %s\n", operation, ahs_error_text());
  return 2;
}

static int selectOnce(ahs_library* library) {
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  ahs_selection* selection = NULL;
  int told = 0;
  if (ahs_select(library, &request, onResult, &told, &selection) != AHS_SUCCESS) {
    return fail("ahs_select");
  }
  const ahs_result* result = ahs_wait(selection, AHS_WAIT_FOREVER);
  const int selected = result != NULL && ahs_is_success(result->status);
  ahs_stop(library); /* the callback comes before this returns */
  ahs_free(selection);
  return selected && told == 1 ? 0 : 1;
}

int main(int argc, char** argv) {
  const size_t count = (size_t)(argc - 1);
  ahs_headend* headends = calloc(count + 1, sizeof *headends);
  for (size_t i = 0; headends != NULL && i < count; ++i) {
    headends[i].address = argv[i + 1];
  }
  ahs_options options = AHS_OPTIONS_INIT;
  options.headends = headends;
  options.headend_count = count;
  ahs_library* library = NULL;
  const ahs_status status = ahs_start(&options, &library);
  free(headends);
  return status == AHS_SUCCESS ? selectOnce(library) : fail("ahs_start");
}
