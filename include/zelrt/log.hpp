// Logging from C++: arguments find their tags by their types. zelrt/log.h includes this.
#ifndef ZELRT_LOG_HPP
#define ZELRT_LOG_HPP

#include <concepts>
#include <string>
#include <tuple>
#include <type_traits>

#include "zelrt/log.h"

namespace zelrt {

// A tagged value of a message: what __ZelLogInternal is passed for one argument. Made from texts,
// integers (signed ones up to 32 bits, unsigned ones of any width) and pointers; whatever else
// there is does not compile.
template <typename Value, uint32_t kTag>
struct LogArgument {
  static constexpr uint32_t Tag() { return kTag; }
  Value value;
};

inline auto ToLogArgument(const char* text) {
  return LogArgument<const char*, ZELLOG_ARG_STRING>{text};
}
inline auto ToLogArgument(const std::string& text) { return ToLogArgument(text.c_str()); }

template <std::signed_integral T>
requires(sizeof(T) <= sizeof(int32_t)) auto ToLogArgument(T value) {
  return LogArgument<int32_t, ZELLOG_ARG_INT>{value};
}
template <std::unsigned_integral T>
auto ToLogArgument(T value) {
  return LogArgument<uint64_t, ZELLOG_ARG_ULONG>{value};
}
template <typename T>
requires(!std::same_as<std::remove_cv_t<T>, char>) auto ToLogArgument(T* pointer) {
  return LogArgument<uint64_t, ZELLOG_ARG_POINTER>{reinterpret_cast<uint64_t>(pointer)};
}

// Logs a message with named arguments, given in the order of their names:
//   zelrt::Log(ZELLOG_SEVERITY_ERROR, ZELLOG_MSG_FAIL_OPEN_FILE, path);
template <typename... Values>
void Log(uint32_t severity, uint32_t messageId, const Values&... values) {
  if constexpr (sizeof...(Values) == 0) {
    __ZelLogInternal(severity, messageId, 0, 0);
  } else {
    // The first tag is 64 bits wide, the others 32.
    const auto call = [=](uint32_t firstTag, auto... rest) {
      __ZelLogInternal(severity, messageId, 0, firstTag, rest...);
    };
    const auto flat = [](auto argument) { return std::make_tuple(argument.Tag(), argument.value); };
    std::apply(call, std::tuple_cat(flat(ToLogArgument(values))...));
  }
}

}  // namespace zelrt

#endif
