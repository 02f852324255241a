// Text from outside, made fit for an XML document.
#pragma once

#include <cstddef>

namespace heapscope {

// Copies as much of the text as fits, with "?" for each byte that is no part of a character that
// XML 1.0 allows in a document of this encoding, UTF-8. Always ends in NUL.
void CleanForXml(const char* text, char* to, size_t size);

}  // namespace heapscope
