// Calendar time and the tick count.
//
// System time comes from the real-time clock, local time honours TZ. The results of
// _tctime and localtime live in buffers of the calling thread that its next call of
// the same function overwrites.
#include <time.h>

#include <cstdio>
#include <mutex>

#include "platform/process.h"
#include "qel/platform.h"

namespace {

const char* const kDayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Local broken-down time of `seconds` after the epoch. The zone comes from TZ in the
// environment, which a script on another thread may be changing.
bool localCalendar(uint32_t seconds, struct tm* out) {
  std::lock_guard<std::mutex> hold(qel::environmentLock());
  tzset();  // the zone may have changed since the last conversion
  time_t when = static_cast<time_t>(seconds);
  return localtime_r(&when, out) != nullptr;
}

}  // namespace

uint32_t time(uint32_t* t) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  uint32_t seconds = static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec));
  if (t) *t = seconds;
  return seconds;
}

QelChar* _tctime(uint32_t* t) {
  thread_local QelChar buffer[64];
  if (!t) return nullptr;
  struct tm local;
  if (!localCalendar(*t, &local)) return nullptr;
  if (local.tm_wday < 0 || local.tm_wday > 6 || local.tm_mon < 0 || local.tm_mon > 11) return nullptr;
  char text[64];
  int length = snprintf(text, sizeof text, "%s %s %02d %02d:%02d:%02d %04d\n",
                        kDayNames[local.tm_wday], kMonthNames[local.tm_mon], local.tm_mday,
                        local.tm_hour, local.tm_min, local.tm_sec, local.tm_year + 1900);
  if (length < 0) return nullptr;
  if (length >= static_cast<int>(sizeof text)) length = static_cast<int>(sizeof text) - 1;
  for (int i = 0; i < length; ++i) buffer[i] = static_cast<unsigned char>(text[i]);
  buffer[length] = 0;
  return buffer;
}

struct tm* localtime(const uint32_t* t) {
  thread_local struct tm record;
  if (!t) return nullptr;
  // The seconds become 100-ns units in 32 bits: the product wraps from 430 s on.
  // Scripts rely on this, so it stays.
  uint32_t units = *t * 10000000u;
  struct tm local;
  if (!localCalendar(units / 10000000u, &local)) return nullptr;
  record = tm();
  record.tm_sec = local.tm_sec;
  record.tm_min = local.tm_min;
  record.tm_hour = local.tm_hour;
  record.tm_mday = local.tm_mday;
  record.tm_mon = local.tm_mon + 1;
  record.tm_year = local.tm_year + 1900;
  record.tm_wday = local.tm_wday;
  record.tm_yday = -1;
  record.tm_isdst = -1;
  return &record;
}

uint32_t qelTickCount() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}
