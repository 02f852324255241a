// One record of the log.
//
//	<msg id='1' source='zelrt'>
//		<type>FAIL_OPEN_FILE</type>
//		<severity>ERROR</severity>
//		<timestamp>Mon Nov 16 16:20:20 2026</timestamp>
//		<arg name='filename'>/tmp/a&amp;b</arg>
//	</msg>
//
// A record is put together in one go and reaches the stream in one piece unless it is long.

#include "log/internal.h"
#include "zelrt/log.h"

namespace zelrt {
namespace {

constexpr const char* kSeverityNames[] = {"ERROR", "WARNING", "INFO"};
constexpr size_t kNumberBufferSize = 256;

// Of the next message element. Atomic: a log file that replaces another has a lock of its own.
constinit uint32_t g_recordNumber = 1;

const char* SeverityName(uint32_t severity) {
  // A value that does not exist must not hide a problem.
  if (severity >= std::size(kSeverityNames)) severity = ZELLOG_SEVERITY_ERROR;
  return kSeverityNames[severity];
}

// What a bare comment says. Who passes named arguments for a message that could not be registered
// has put a tag where the format belongs: nobody must look for a text there.
const char* FormatOf(uint64_t formatOrTag) {
  switch (formatOrTag) {
    case ZELLOG_ARG_STRING:
    case ZELLOG_ARG_POINTER:
    case ZELLOG_ARG_INT:
    case ZELLOG_ARG_ULONG:
      return "";
    default:
      return reinterpret_cast<const char*>(formatOrTag);
  }
}

auto Text(std::string_view text) {
  return [text](XmlPieces& pieces) { pieces.Add(text); };
}

// Adds the value behind a tag, which is taken off the list. False for an unknown tag, behind which
// nothing can be read.
bool AddArgumentValue(XmlPieces& pieces, uint32_t tag, va_list arguments) {
  switch (tag) {
    case ZELLOG_ARG_STRING: {
      const char* const text = va_arg(arguments, const char*);
      pieces.AddEscaped(text != nullptr ? text : "");
      return true;
    }
    case ZELLOG_ARG_POINTER: {
      char digits[kNumberBufferSize];
      std::snprintf(digits, sizeof digits, "%p", va_arg(arguments, void*));
      pieces.AddEscaped(digits);
      return true;
    }
    case ZELLOG_ARG_INT:
      pieces.AddNumber(va_arg(arguments, int32_t));
      return true;
    case ZELLOG_ARG_ULONG:
      pieces.AddNumber(va_arg(arguments, uint64_t));
      return true;
    default:
      return false;
  }
}

void AddArguments(XmlPieces& pieces, const Message& message, uint64_t firstTag, va_list arguments) {
  bool isReadable = true;
  for (size_t i = 0; message.argumentNames[i] != nullptr; ++i) {
    pieces.StartTag("arg").Attribute("name", Text(message.argumentNames[i])).FinishTag();
    if (isReadable) {
      const uint32_t tag = i == 0 ? static_cast<uint32_t>(firstTag) : va_arg(arguments, uint32_t);
      isReadable = AddArgumentValue(pieces, tag, arguments);
    }
    pieces.AppendCloseTag("arg");
  }
}

void WriteMessage(ZelXmlFile* file, const Message& message, uint32_t severity, bool notForDisplay,
                  const char* timestamp, uint64_t formatOrTag, va_list arguments) {
  const uint32_t number = AtomicExchangeAdd(g_recordNumber, 1);
  XmlPieces pieces(file);
  pieces.StartTag("msg").Attribute("id", [=](XmlPieces& value) { value.AddNumber(number); });
  if (notForDisplay || (message.flags & ZELLOG_FLAG_NO_DISPLAY) != 0)
    pieces.Attribute("display", Text("false"));
  pieces.Attribute("source", Text(SourceName(message.source))).FinishTag();
  pieces.Element("type", [&](XmlPieces& value) { value.AddEscaped(message.name); });
  pieces.Element("severity", Text(SeverityName(severity)));
  pieces.Element("timestamp", Text(timestamp));
  if ((message.flags & ZELLOG_FLAG_TEXT) != 0) {
    pieces.Comment(reinterpret_cast<const char*>(formatOrTag), arguments);
  } else {
    AddArguments(pieces, message, formatOrTag, arguments);
  }
  pieces.CloseTag("msg");
}

}  // namespace

void WriteLogRecord(uint32_t severity, uint32_t messageId, bool notForDisplay, uint64_t formatOrTag,
                    va_list arguments) {
  const char* const timestamp = LocalTimestamp();
  const uint64_t self = CallingOwner();
  ZelXmlFile* const file = LogFileForRecord(self);
  if (file == nullptr) return;
  const LogFileHold hold(file, self);
  if (!hold.IsHeld() || file->stream == nullptr) return;
  const Message* const message = FindMessage(messageId);
  if (message == nullptr || (message->flags & ZELLOG_FLAG_COMMENT) != 0) {
    XmlPieces(file).Comment(FormatOf(formatOrTag), arguments);
  } else {
    WriteMessage(file, *message, severity, notForDisplay, timestamp, formatOrTag, arguments);
  }
}

}  // namespace zelrt
