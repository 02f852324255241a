// Vectors: single elements at random, and the maximum of two full vectors.
//
// The model is the two indexings that an element takes, inline and without a look at the index. Its
// maximum, and the vectorised peer's, are the loop that the compiler makes of one line.

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "bench/suite.h"
#include "zelrt/vector.h"

namespace bench {
namespace {

constexpr uint32_t kElements = ZEL_VECTOR_ELEMENTS;
constexpr uint32_t kPageElements = ZEL_VECTOR_PAGE_ELEMENTS;
constexpr uint32_t kSteps = 1 << 16;

// The contenders. Elements all exist.

class OurVector {
 public:
  OurVector() = default;
  ~OurVector() { __ZelDestroyVector(vector_); }
  OurVector(const OurVector&) = delete;
  OurVector& operator=(const OurVector&) = delete;

  uint64_t Get(uint32_t index) const { return __ZelGetVectorElement(vector_, index); }
  uint64_t Set(uint32_t index, uint64_t value) {
    return __ZelSetVectorElement(vector_, index, value);
  }
  uint64_t Increment(uint32_t index) { return __ZelIncrementVectorElement(vector_, index); }
  void RaiseTo(const OurVector& other) { __ZelMaxVector(vector_, other.vector_); }

 private:
  ZelVector* const vector_ = __ZelCreateVector(0);
};

// What is in `At` is all that distinguishes the others.
template <typename Elements>
class InlineVector : public Elements {
 public:
  uint64_t Get(uint32_t index) { return this->At(index); }
  uint64_t Set(uint32_t index, uint64_t value) {
    uint64_t& element = this->At(index);
    const uint64_t before = element;
    element = value;
    return before;
  }
  uint64_t Increment(uint32_t index) { return this->At(index)++; }
};

class ModelElements {
 public:
  ModelElements() {
    for (auto& page : pages_) page = new uint64_t[kPageElements]();
  }
  ~ModelElements() {
    for (auto& page : pages_) delete[] page;
  }
  ModelElements(const ModelElements&) = delete;
  ModelElements& operator=(const ModelElements&) = delete;

  uint64_t& At(uint32_t index) { return pages_[index / kPageElements][index % kPageElements]; }

 private:
  std::array<uint64_t*, ZEL_VECTOR_PAGES> pages_;
};

struct CheckedElements {
  uint64_t& At(uint32_t index) { return elements.at(index); }
  std::vector<uint64_t> elements = std::vector<uint64_t>(kElements);
};

#define RAISE_LOOP(count) \
  for (size_t i = 0; i < (count); ++i) to[i] = to[i] > from[i] ? to[i] : from[i]

[[gnu::noinline]] void RaisePlainly(uint64_t* __restrict to, const uint64_t* __restrict from) {
  RAISE_LOOP(kElements);
}
[[gnu::noinline, gnu::target("avx2")]] void RaiseWithAvx2(uint64_t* __restrict to,
                                                          const uint64_t* __restrict from) {
  RAISE_LOOP(kElements);
}

template <void (*kRaise)(uint64_t*, const uint64_t*)>
struct StdVector : InlineVector<CheckedElements> {
  void RaiseTo(const StdVector& other) { kRaise(elements.data(), other.elements.data()); }
};

// The works.

const std::vector<uint32_t>& Indices() {
  static const std::vector<uint32_t> indices = [] {
    std::mt19937 random(131'072);
    std::vector<uint32_t> made(kSteps);
    for (uint32_t& index : made) index = random() % kElements;
    return made;
  }();
  return indices;
}

template <typename Vector>
void Fill(Vector& vector, unsigned seed) {
  std::mt19937_64 random(seed);
  for (uint32_t index = 0; index < kElements; ++index) vector.Set(index, random());
}

template <typename Vector, typename Step>
void AtRandom(benchmark::State& state, Step step) {
  Vector vector;
  Fill(vector, 1);
  const std::vector<uint32_t>& indices = Indices();
  uint64_t sum = 0;
  while (state.KeepRunningBatch(kSteps)) {
    for (const uint32_t index : indices) sum += step(vector, index);
  }
  const uint64_t result = sum;
  benchmark::DoNotOptimize(result);
}

template <typename Vector>
void Maximum(benchmark::State& state) {
  Vector vector;
  Vector other;
  Fill(vector, 1);
  Fill(other, 2);
  while (state.KeepRunningBatch(ZEL_VECTOR_PAGES)) {
    vector.RaiseTo(other);
    benchmark::ClobberMemory();
  }
}

constexpr char kChecked[] = "vector::at";
constexpr char kPlainLoop[] = "plain loop";
constexpr char kVectorised[] = "AVX2 loop";

template <typename Step>
Work OneElement(const char* name, Step step) {
  using Checked = InlineVector<CheckedElements>;
  return {
      .name = name,
      .contenders =
          {{kOurs, Role::kOurs, [step](benchmark::State& s) { AtRandom<OurVector>(s, step); }},
           {kModel, Role::kBound,
            [step](benchmark::State& s) { AtRandom<InlineVector<ModelElements>>(s, step); }},
           {kChecked, Role::kPeer, [step](benchmark::State& s) { AtRandom<Checked>(s, step); }}},
      .goals = {AtMost(2.0, kModel)}};
}

Work MaximumOfFullVectors() {
  Run vectorised = Maximum<StdVector<RaiseWithAvx2>>;
  if (!__builtin_cpu_supports("avx2")) vectorised = nullptr;
  return {.name = "maximum of full vectors, 256 elements",
          .contenders = {{kOurs, Role::kOurs, Maximum<OurVector>},
                         {kPlainLoop, Role::kPeer, Maximum<StdVector<RaisePlainly>>},
                         {kVectorised, Role::kPeer, vectorised}},
          .goals = {AtMost(1.0, kVectorised)}};
}

}  // namespace

Family Vector() {
  return {"vector",
          "ns",
          {OneElement("get, at random", [](auto& vector, uint32_t i) { return vector.Get(i); }),
           OneElement("set, at random", [](auto& vector, uint32_t i) { return vector.Set(i, i); }),
           OneElement("increment, at random",
                      [](auto& vector, uint32_t i) { return vector.Increment(i); }),
           MaximumOfFullVectors()}};
}

}  // namespace bench
