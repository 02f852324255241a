// The time of a record.

#include <ctime>

#include "log/internal.h"

namespace zelrt {
namespace {

// A conversion to local time costs more than the rest of a record, and asks a lock of the C
// library; so a thread keeps the text for as long as the second lasts.
struct Timestamp {
  time_t second;
  char text[64];  // asctime asks for 26, and for more when the year has five digits
};
constinit thread_local Timestamp t_timestamp = {};

bool IsWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

void StripEnd(char* text) {
  for (size_t length = std::strlen(text); length > 1 && IsWhiteSpace(text[length - 1]); --length) {
    text[length - 1] = '\0';
  }
}

}  // namespace

const char* LocalTimestamp() {
  const time_t now = time(nullptr);
  Timestamp& timestamp = t_timestamp;
  if (timestamp.second == now && timestamp.text[0] != '\0') return timestamp.text;
  tm local;
  const bool isKnown =
      localtime_r(&now, &local) != nullptr && asctime_r(&local, timestamp.text) != nullptr;
  if (!isKnown) timestamp.text[0] = '\0';
  StripEnd(timestamp.text);
  timestamp.second = now;
  return timestamp.text;
}

}  // namespace zelrt
