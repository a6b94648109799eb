/* A client in C: selects among the addresses that it is given and prints what it is told. It ends
 * with 0 when there is a headend. Usage: c_client ADDRESS... */

#include <stdio.h>

#include "capi/ahs.h"

static void onResult(const ahs_result* result, void* context) {
  int* told = context;
  ++*told;
  printf("%s", ahs_status_name(result->status));
  for (size_t i = 0; i < result->headend_count; ++i) {
    printf(" %s", result->headends[i]);
  }
  printf("\n");
}

static int fail(const char* operation, ahs_status status) {
  fprintf(stderr, "%s: %s (0x%08X)\n", operation, ahs_status_name(status), (unsigned int)status);
  return 2;
}

static int selectOnce(ahs_library* library) {
  ahs_request request = AHS_REQUEST_INIT;
  request.reason = AHS_REASON_RECONNECTION;
  ahs_selection* selection = NULL;
  int told = 0;
  const ahs_status status = ahs_select(library, &request, onResult, &told, &selection);
  if (status != AHS_SUCCESS) {
    return fail("ahs_select", status);
  }
  const enum ahs_wait_result waited = ahs_wait(selection, AHS_WAIT_FOREVER);
  const ahs_result* result = ahs_get_result(selection);
  const int selected = waited == AHS_WAIT_DELIVERED && told == 1 && result->headend_count > 0;
  ahs_free(selection);
  return selected ? 0 : 1;
}

int main(int argc, char** argv) {
  ahs_options options = AHS_OPTIONS_INIT;
  options.addresses = (const char* const*)(argv + 1);
  options.address_count = (size_t)(argc - 1);
  ahs_library* library = NULL;
  const ahs_status status = ahs_start(&options, &library);
  if (status != AHS_SUCCESS) {
    return fail("ahs_start", status);
  }
  const int exitStatus = selectOnce(library);
  ahs_stop(library);
  return exitStatus;
}
