// Lists of numbers in texts, such as the values of options.
//
//   std::vector<unsigned long> cores;
//   zelrt::StrToNums("1,2,,3", ',', cores);  // appends 1, 2, 0, 3
#ifndef ZELRT_NUMBERS_HPP
#define ZELRT_NUMBERS_HPP

#include <vector>

#include "zelrt/base.h"

namespace zelrt {

// Appends the decimal numbers of the text to those in `numbers`. Each is read by strtol, with its
// white space, sign, limits and errno: a field that does not begin with a number gives 0, a
// negative one its image in 64 bits. Nothing follows a separator at the end, and nothing is in a
// text that is null or empty. With NUL as the separator there is one number.
//
// Any thread may call it. Nothing throws but the vector's allocation.
ZEL_API void StrToNums(const char* text, char separator, std::vector<unsigned long>& numbers);

}  // namespace zelrt

#endif
