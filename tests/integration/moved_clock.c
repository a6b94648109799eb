// To be preloaded: moves the time of day to AHS_TEST_CLOCK, in seconds since 1970.

#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

time_t time(time_t* result) {
  const time_t now = atol(getenv("AHS_TEST_CLOCK"));
  if (result != NULL) {
    *result = now;
  }
  return now;
}

int clock_gettime(clockid_t clock, struct timespec* result) {
  const int status = (int)syscall(SYS_clock_gettime, clock, result);
  if (status == 0 && clock == CLOCK_REALTIME) {
    result->tv_sec = time(NULL);
  }
  return status;
}

int gettimeofday(struct timeval* result, void* zone) {
  (void)zone;
  result->tv_sec = time(NULL);
  result->tv_usec = 0;
  return 0;
}
