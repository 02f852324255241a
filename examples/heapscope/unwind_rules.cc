// The unwind tables: .eh_frame, as the psABI for x86-64 and the Linux Standard Base have it.
//
//	CIE  length, 0, version, augmentation, alignment of code and data, return address column,
//	     augmentation data, instructions
//	FDE  length, distance to the CIE, function, its size, augmentation data, instructions
//
// The instructions build a row of rules, one for the CFA and one for each register, which changes
// from address to address. Of the registers, three matter here. What a row says about them in a
// usual way becomes a rule; all else is left to the unwinder of the compiler.

#include "examples/heapscope/unwind_rules.h"

#include <cstring>

namespace heapscope {
namespace {

constexpr UnwindRule kUnusualRule = {UnwindRule::Kind::kUnusual, 0, 0};

// Registers by their numbers in the tables.
constexpr uint64_t kRbp = 6;
constexpr uint64_t kRsp = 7;
constexpr uint64_t kReturnAddress = 16;

constexpr int64_t kWord = 8;

// Of any number: of the least one too.
constexpr int64_t Negated(int64_t value) {
  return static_cast<int64_t>(0 - static_cast<uint64_t>(value));
}

// Reads forward. What does not fit reads as 0, and from then on nothing is good any more.
class Reader {
 public:
  Reader(const uint8_t* start, const uint8_t* end) : at_(start), end_(end) {}

  bool IsGood() const { return isGood_; }
  bool IsAtEnd() const { return at_ == end_; }
  const uint8_t* At() const { return at_; }

  template <typename T>
  T Get() {
    T value = 0;
    if (const uint8_t* const from = Take(sizeof value); from != nullptr)
      std::memcpy(&value, from, sizeof value);
    return value;
  }

  uint64_t GetUleb() { return GetLeb128(false); }
  int64_t GetSleb() { return static_cast<int64_t>(GetLeb128(true)); }

  // A part of it, and goes on behind.
  Reader GetPart(uint64_t size) {
    const uint8_t* const from = Take(size);
    return from != nullptr ? Reader(from, at_) : Reader(at_, at_);
  }

 private:
  uint64_t Fail() {
    isGood_ = false;
    at_ = end_;
    return 0;
  }

  // Seven bits a byte, the lowest first; the top bit says that more follow.
  uint64_t GetLeb128(bool isSigned) {
    uint64_t value = 0;
    uint32_t shift = 0;
    uint8_t byte;
    do {
      byte = Get<uint8_t>();
      if (shift >= 63) return Fail();
      value |= uint64_t{byte & 0x7Fu} << shift;
      shift += 7;
    } while ((byte & 0x80) != 0);
    if (isSigned && (byte & 0x40) != 0) value |= ~uint64_t{0} << shift;
    return value;
  }

  const uint8_t* Take(uint64_t size) {
    if (size > static_cast<uint64_t>(end_ - at_)) {
      Fail();
      return nullptr;
    }
    const uint8_t* const from = at_;
    at_ += size;
    return from;
  }

  const uint8_t* at_;
  const uint8_t* end_;
  bool isGood_ = true;
};

// Pointers are stored in a format, the low bits of an encoding. None of the values is needed.
bool SkipPointer(Reader& reader, uint8_t encoding) {
  constexpr uint8_t kOmitted = 0xFF, kAligned = 0x50, kFormat = 0x0F;
  if (encoding == kOmitted) return true;
  if (encoding == kAligned) return false;
  switch (encoding & kFormat) {
    case 0x01:
    case 0x09:
      reader.GetUleb();
      break;
    case 0x02:
    case 0x0A:
      reader.Get<uint16_t>();
      break;
    case 0x03:
    case 0x0B:
      reader.Get<uint32_t>();
      break;
    case 0x00:
    case 0x04:
    case 0x0C:
      reader.Get<uint64_t>();
      break;
    default:
      return false;
  }
  return reader.IsGood();
}

// The contents of an entry, behind its length.
Reader OpenEntry(Bytes table, const uint8_t* entry) {
  constexpr uint32_t kLongForm = 0xFFFFFFFF;
  if (entry < table.start || entry > table.end) return Reader(entry, entry);
  Reader reader(entry, table.end);
  const auto length = reader.Get<uint32_t>();
  return length != kLongForm ? reader.GetPart(length) : Reader(entry, entry);
}

struct Cie {
  uint64_t codeAlignment;
  int64_t dataAlignment;
  uint8_t pointerEncoding;
  bool hasAugmentation;
  Reader instructions;
};

bool ReadCie(Reader reader, Cie* cie) {
  constexpr uint32_t kCieId = 0;
  if (reader.Get<uint32_t>() != kCieId) return false;
  const auto version = reader.Get<uint8_t>();
  if (version != 1 && version != 3) return false;
  const auto* augmentation = reinterpret_cast<const char*>(reader.At());
  while (reader.Get<uint8_t>() != 0) {
  }
  if (!reader.IsGood()) return false;
  cie->codeAlignment = reader.GetUleb();
  cie->dataAlignment = reader.GetSleb();
  const uint64_t column = version == 1 ? reader.Get<uint8_t>() : reader.GetUleb();
  if (column != kReturnAddress) return false;
  cie->pointerEncoding = 0;
  cie->hasAugmentation = *augmentation == 'z';
  if (cie->hasAugmentation) {
    Reader data = reader.GetPart(reader.GetUleb());
    // "P" comes with a pointer to the personality routine, "L" with an encoding in the FDE. "S" is
    // a signal's frame.
    while (*++augmentation != '\0') {
      switch (*augmentation) {
        case 'R':
          cie->pointerEncoding = data.Get<uint8_t>();
          break;
        case 'L':
          data.Get<uint8_t>();
          break;
        case 'P':
          if (!SkipPointer(data, data.Get<uint8_t>())) return false;
          break;
        default:
          return false;
      }
    }
    if (!data.IsGood()) return false;
  } else if (*augmentation != '\0') {
    return false;
  }
  cie->instructions = reader;
  return reader.IsGood();
}

// Where a register of the caller is.
struct Saved {
  enum class Where : uint8_t { kInPlace, kNowhere, kAtCfa, kAtRbp, kElsewhere };
  Where where = Where::kInPlace;
  int64_t offset = 0;  // from the CFA
};

struct Row {
  enum class Cfa : uint8_t { kFromRegister, kThroughRbp, kOther };
  Cfa cfa = Cfa::kOther;
  uint64_t cfaRegister = 0;
  int64_t cfaOffset = 0;
  Saved rbp;
  Saved rsp;
  Saved returnAddress;
};

class Interpreter {
 public:
  Interpreter(const Cie& cie, uintptr_t function, uintptr_t address)
      : cie_(cie), location_(function), address_(address) {}

  // False when there is something that is not understood.
  bool Run() {
    const uintptr_t function = location_;
    if (!RunInstructions(cie_.instructions) || location_ != function) return false;
    initial_ = row_;
    return true;
  }
  bool Run(Reader instructions) { return RunInstructions(instructions); }

  const Row& Result() const { return row_; }

 private:
  static constexpr uint32_t kMaxRemembered = 8;

  bool RunInstructions(Reader reader) {
    // A row that begins at the return address is one behind the call.
    while (!reader.IsAtEnd() && location_ < address_) {
      if (!Step(reader) || !reader.IsGood()) return false;
    }
    return true;
  }

  bool Step(Reader& reader) {
    const auto opcode = reader.Get<uint8_t>();
    const uint8_t operand = opcode & 0x3F;
    switch (opcode & 0xC0) {
      case 0x40:
        return Advance(operand);
      case 0x80:
        return Save(operand, AtCfa(Scaled(reader.GetUleb())));
      case 0xC0:
        return Restore(operand);
    }
    switch (opcode) {
      case 0x00:
        return true;  // nop
      case 0x02:
        return Advance(reader.Get<uint8_t>());
      case 0x03:
        return Advance(reader.Get<uint16_t>());
      case 0x04:
        return Advance(reader.Get<uint32_t>());
      case 0x05:
        return SaveNext(reader, [&] { return AtCfa(Scaled(reader.GetUleb())); });
      case 0x06:
        return Restore(reader.GetUleb());
      case 0x07:
        return Save(reader.GetUleb(), {Saved::Where::kNowhere, 0});
      case 0x08:
        return Save(reader.GetUleb(), {});
      case 0x09:  // in another register
      case 0x14:  // is the CFA and an offset
        return SaveNext(reader, [&] { return reader.GetUleb(), kElsewhere; });
      case 0x0A:
        return Remember();
      case 0x0B:
        return Recall();
      case 0x0C:
        row_.cfaRegister = reader.GetUleb();
        return SetOffset(static_cast<int64_t>(reader.GetUleb()));
      case 0x0D:
        row_.cfaRegister = reader.GetUleb();
        return row_.cfa == Row::Cfa::kFromRegister;
      case 0x0E:
        return SetOffset(static_cast<int64_t>(reader.GetUleb()));
      case 0x0F:
        return SetCfaExpression(reader.GetPart(reader.GetUleb()));
      case 0x10:
        return SaveNext(reader, [&] { return AtExpression(reader.GetPart(reader.GetUleb())); });
      case 0x11:
        return SaveNext(reader, [&] { return AtCfa(Scaled(reader.GetSleb())); });
      case 0x12:
        row_.cfaRegister = reader.GetUleb();
        return SetOffset(Scaled(reader.GetSleb()));
      case 0x13:
        return SetOffset(Scaled(reader.GetSleb()));
      case 0x15:
        return SaveNext(reader, [&] { return reader.GetSleb(), kElsewhere; });
      case 0x16:  // is the value of an expression
        return SaveNext(reader, [&] { return reader.GetPart(reader.GetUleb()), kElsewhere; });
      case 0x2E:
        reader.GetUleb();
        return true;  // size of the arguments
      case 0x2F:      // negative offset
        return SaveNext(reader, [&] { return AtCfa(Negated(Scaled(reader.GetUleb()))); });
      default:
        return false;  // 0x01 sets the location; the others are of other processors
    }
  }

  static constexpr Saved kElsewhere = {Saved::Where::kElsewhere, 0};
  static Saved AtCfa(int64_t offset) { return {Saved::Where::kAtCfa, offset}; }

  // Of hostile numbers the product is of no interest, but must not overflow.
  template <typename T>
  int64_t Scaled(T factor) const {
    int64_t product;
    return __builtin_mul_overflow(factor, cie_.dataAlignment, &product) ? 0 : product;
  }

  bool Advance(uint64_t units) {
    uintptr_t step;
    if (__builtin_mul_overflow(units, cie_.codeAlignment, &step)) return false;
    return !__builtin_add_overflow(location_, step, &location_);
  }

  static Saved* Find(Row& row, uint64_t number) {
    switch (number) {
      case kRbp:
        return &row.rbp;
      case kRsp:
        return &row.rsp;
      case kReturnAddress:
        return &row.returnAddress;
      default:
        return nullptr;
    }
  }

  bool Save(uint64_t number, Saved saved) {
    if (Saved* const of = Find(row_, number); of != nullptr) *of = saved;
    return true;
  }

  template <typename GetSaved>
  bool SaveNext(Reader& reader, GetSaved getSaved) {
    const uint64_t number = reader.GetUleb();
    return Save(number, getSaved());
  }

  bool Restore(uint64_t number) {
    const Saved* const initially = Find(initial_, number);
    return initially == nullptr || Save(number, *initially);
  }

  bool Remember() {
    if (remembered_ == kMaxRemembered) return false;
    rows_[remembered_++] = row_;
    return true;
  }

  bool Recall() {
    if (remembered_ == 0) return false;
    row_ = rows_[--remembered_];
    return true;
  }

  bool SetOffset(int64_t offset) {
    row_.cfa = Row::Cfa::kFromRegister;
    row_.cfaOffset = offset;
    return true;
  }

  // Expressions: rbp and an offset, the first operation of both forms that realigned frames have.
  static bool GetRbpAndOffset(Reader& expression, int64_t* offset) {
    constexpr uint8_t kRbpAndOffset = 0x76;
    const bool is = expression.Get<uint8_t>() == kRbpAndOffset;
    *offset = expression.GetSleb();
    return is && expression.IsGood();
  }

  bool SetCfaExpression(Reader expression) {
    constexpr uint8_t kDereference = 0x06;
    const bool is = GetRbpAndOffset(expression, &row_.cfaOffset) &&
                    expression.Get<uint8_t>() == kDereference && expression.IsAtEnd() &&
                    expression.IsGood();
    row_.cfa = is ? Row::Cfa::kThroughRbp : Row::Cfa::kOther;
    return true;
  }

  static Saved AtExpression(Reader expression) {
    int64_t offset;
    const bool is = GetRbpAndOffset(expression, &offset) && offset == 0 && expression.IsAtEnd();
    return is ? Saved{Saved::Where::kAtRbp, 0} : kElsewhere;
  }

  const Cie& cie_;
  uintptr_t location_;
  const uintptr_t address_;
  Row row_;
  Row initial_;
  Row rows_[kMaxRemembered];
  uint32_t remembered_ = 0;
};

bool IsDistance(int64_t offset, uint32_t limit) {
  return offset > 0 && offset < limit && offset % kWord == 0;
}

UnwindRule MakeRule(const Row& row) {
  using Kind = UnwindRule::Kind;
  using Where = Saved::Where;
  if (row.returnAddress.where == Where::kNowhere) return {Kind::kEndOfStack, 0, 0};
  if (row.returnAddress.where != Where::kAtCfa || row.returnAddress.offset != -kWord)
    return kUnusualRule;
  if (row.rsp.where != Where::kInPlace) return kUnusualRule;

  if (row.cfa == Row::Cfa::kThroughRbp) {
    return row.rbp.where == Where::kAtRbp && IsDistance(Negated(row.cfaOffset), kMaxCfaDistance)
               ? UnwindRule{Kind::kThroughRbp, static_cast<uint32_t>(Negated(row.cfaOffset)), 0}
               : kUnusualRule;
  }
  if (row.cfa != Row::Cfa::kFromRegister || !IsDistance(row.cfaOffset, kMaxCfaDistance))
    return kUnusualRule;
  if (row.cfaRegister != kRsp && row.cfaRegister != kRbp) return kUnusualRule;
  UnwindRule rule = {row.cfaRegister == kRsp ? Kind::kFromRsp : Kind::kFromRbp,
                     static_cast<uint32_t>(row.cfaOffset), 0};
  // A register that is lost has the value that is in it, for the compiler's unwinder.
  if (row.rbp.where == Where::kInPlace || row.rbp.where == Where::kNowhere) return rule;
  if (row.rbp.where != Where::kAtCfa || !IsDistance(Negated(row.rbp.offset), kMaxRbpBelow))
    return kUnusualRule;
  rule.rbpBelow = static_cast<uint32_t>(Negated(row.rbp.offset));
  return rule;
}

}  // namespace

UnwindRule ReadUnwindRule(Bytes table, const uint8_t* entry, uintptr_t function,
                          uintptr_t address) {
  Reader fde = OpenEntry(table, entry);
  const uint8_t* const from = fde.At();
  const auto distance = fde.Get<uint32_t>();
  if (!fde.IsGood() || distance == 0 || distance > static_cast<size_t>(from - table.start))
    return kUnusualRule;
  Cie cie = {0, 0, 0, false, Reader(nullptr, nullptr)};
  if (!ReadCie(OpenEntry(table, from - distance), &cie)) return kUnusualRule;
  constexpr uint8_t kFormat = 0x0F;
  if (!SkipPointer(fde, cie.pointerEncoding)) return kUnusualRule;
  if (!SkipPointer(fde, cie.pointerEncoding & kFormat)) return kUnusualRule;
  if (cie.hasAugmentation) fde.GetPart(fde.GetUleb());
  Interpreter interpreter(cie, function, address);
  if (!fde.IsGood() || !interpreter.Run() || !interpreter.Run(fde)) return kUnusualRule;
  return MakeRule(interpreter.Result());
}

}  // namespace heapscope
