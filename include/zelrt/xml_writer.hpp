// XML result files, written by an object that knows which elements are open.
#ifndef ZELRT_XML_WRITER_HPP
#define ZELRT_XML_WRITER_HPP

#include <deque>
#include <string>

#include "zelrt/xml.h"

// A thin layer over zelrt/xml.h: the same file, escaping and lock. It closes elements by itself,
// and ends a started tag before the first content or child. All writing calls return the writer, so
// that they can be chained, and do nothing to a file that is not open.
//
// One thread at a time uses a writer; threads that share its file put what belongs together between
// acquire() and release(). Names must not be null: the copy of one in startElement throws
// std::logic_error. Nothing else throws but the strings' own allocation.
class ZEL_API ZelXmlWriter {
 public:
  ZelXmlWriter();
  virtual ~ZelXmlWriter();  // closes
  ZelXmlWriter(const ZelXmlWriter&) = delete;
  ZelXmlWriter& operator=(const ZelXmlWriter&) = delete;

  // Closes a file that is open, and opens another (zelrt/xml.h). True when it is open.
  bool create(const char* path, bool append);

  // Closes all open elements, innermost first, and the file.
  void close();

  ZelXmlWriter& acquire();
  ZelXmlWriter& release();

  // Elements. With finishTag false, attributes may follow. An element ends on a line of its own;
  // with none open, ending does nothing.
  ZelXmlWriter& startElement(const char* name, bool finishTag);
  ZelXmlWriter& endElement();
  ZelXmlWriter& endAll();

  // Ends a started tag; for what is written around the writer.
  ZelXmlWriter& autoFinishStartedTag();

  // Attributes belong between startElement(name, false) and the first content or child.
  ZelXmlWriter& writeStrAttribute(const char* name, const std::string& value);  // not escaped
  ZelXmlWriter& writeAttribute(const char* name, int value);
  ZelXmlWriter& writeAttribute(const char* name, unsigned long long value);
  ZelXmlWriter& writeAttribute(const char* name, const void* value);  // 0x and hexadecimal

  // Content of the innermost element.
  ZelXmlWriter& write(const std::string& text);  // escaped
  ZelXmlWriter& write(int value);

  // Elements on one line. Integers are written as unsigned 64-bit ones: -1 is 18446744073709551615.
  ZelXmlWriter& writeStrElement(const char* name, const std::string& value);  // escaped
  ZelXmlWriter& writeElement(const char* name, unsigned long long value);
  ZelXmlWriter& writeElement(const char* name, unsigned long value);
  ZelXmlWriter& writeElement(const char* name, unsigned int value);
  ZelXmlWriter& writeElement(const char* name, int value);
  ZelXmlWriter& writeAddressElement(const char* name, unsigned long value);  // 0x and hexadecimal
  ZelXmlWriter& writeAddressElement(const char* name, const void* value);

 private:
  enum TagState : uint32_t { kStarted = 0, kContent = 1, kNothingPending = 2 };

  std::deque<std::string> openElements_;  // the innermost at the back
  TagState tagState_;
  ZelXmlFile* file_;
};

#endif
