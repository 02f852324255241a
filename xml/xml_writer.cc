// The XML writer class.

#include "zelrt/xml_writer.hpp"

ZelXmlWriter::ZelXmlWriter() : tagState_(kNothingPending), file_(nullptr) {}

// A handle whose close failed is only freed by another one, hence two of them.
ZelXmlWriter::~ZelXmlWriter() {
  close();
  __ZelXMLCloseFile(&file_);
}

bool ZelXmlWriter::create(const char* path, bool append) {
  // Without a file too: elements that were started then must not end in the next one.
  close();
  __ZelXMLCloseFile(&file_);
  file_ = __ZelXMLCreateFile(path, append ? 1 : 0);
  return file_ != nullptr;
}

void ZelXmlWriter::close() {
  endAll();
  __ZelXMLCloseFile(&file_);
}

ZelXmlWriter& ZelXmlWriter::acquire() {
  __ZelXMLAcquireFile(file_);
  return *this;
}
ZelXmlWriter& ZelXmlWriter::release() {
  __ZelXMLReleaseFile(file_);
  return *this;
}

ZelXmlWriter& ZelXmlWriter::startElement(const char* name, bool finishTag) {
  std::string ownName(name);  // may throw, so before anything is written
  autoFinishStartedTag();
  if (finishTag) {
    __ZelXMLWriteOpeningTag(file_, name);
    tagState_ = kContent;
  } else {
    __ZelXMLStartWritingOpeningTag(file_, name);
    tagState_ = kStarted;
  }
  openElements_.push_back(std::move(ownName));
  return *this;
}

ZelXmlWriter& ZelXmlWriter::endElement() {
  if (openElements_.empty()) return *this;
  autoFinishStartedTag();
  __ZelXMLWriteClosingTag(file_, openElements_.back().c_str());
  openElements_.pop_back();
  tagState_ = kNothingPending;
  return *this;
}

ZelXmlWriter& ZelXmlWriter::endAll() {
  while (!openElements_.empty()) endElement();
  return *this;
}

ZelXmlWriter& ZelXmlWriter::autoFinishStartedTag() {
  if (tagState_ == kStarted) __ZelXMLFinishWritingOpeningTag(file_);
  return *this;
}

ZelXmlWriter& ZelXmlWriter::writeStrAttribute(const char* name, const std::string& value) {
  __ZelXMLWriteStringAttribute(file_, name, value.c_str());
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeAttribute(const char* name, int value) {
  __ZelXMLWriteIntegerAttribute(file_, name, value);
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeAttribute(const char* name, unsigned long long value) {
  __ZelXMLWriteLongIntegerAttribute(file_, name, value);
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeAttribute(const char* name, const void* value) {
  __ZelXMLWriteHexadecimalAddressAttribute(file_, name, reinterpret_cast<uint64_t>(value));
  return *this;
}

ZelXmlWriter& ZelXmlWriter::write(const std::string& text) {
  autoFinishStartedTag();
  tagState_ = kContent;
  __ZelXMLWriteStringValue(file_, text.c_str());
  return *this;
}
ZelXmlWriter& ZelXmlWriter::write(int value) {
  autoFinishStartedTag();
  tagState_ = kContent;
  __ZelXMLWriteIntValue(file_, value);
  return *this;
}

ZelXmlWriter& ZelXmlWriter::writeStrElement(const char* name, const std::string& value) {
  autoFinishStartedTag();
  __ZelXMLWriteStringElement(file_, name, value.c_str());
  tagState_ = kNothingPending;
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeElement(const char* name, unsigned long long value) {
  autoFinishStartedTag();
  __ZelXMLWriteLongDecimalElement(file_, name, value);
  tagState_ = kNothingPending;
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeElement(const char* name, unsigned long value) {
  return writeElement(name, static_cast<unsigned long long>(value));
}
ZelXmlWriter& ZelXmlWriter::writeElement(const char* name, unsigned int value) {
  return writeElement(name, static_cast<unsigned long long>(value));
}
ZelXmlWriter& ZelXmlWriter::writeElement(const char* name, int value) {
  return writeElement(name, static_cast<unsigned long long>(static_cast<long long>(value)));
}
ZelXmlWriter& ZelXmlWriter::writeAddressElement(const char* name, unsigned long value) {
  autoFinishStartedTag();
  __ZelXMLWriteHexadecimalAddressElement(file_, name, value);
  tagState_ = kNothingPending;
  return *this;
}
ZelXmlWriter& ZelXmlWriter::writeAddressElement(const char* name, const void* value) {
  return writeAddressElement(name, reinterpret_cast<unsigned long>(value));
}
