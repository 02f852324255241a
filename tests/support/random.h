// Random choices for tests against a model. What fails in the scope of one names its seed.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

namespace zeltest {

class Random {
 public:
  Random() : trace_(__FILE__, __LINE__, "seed " + std::to_string(seed_)) {}

  uint64_t operator()() { return engine_(); }  // 32 bits
  uint32_t Below(uint64_t limit) { return static_cast<uint32_t>(engine_() % limit); }
  bool OneIn(uint32_t n) { return Below(n) == 0; }

 private:
  const uint32_t seed_ = std::random_device()();
  std::mt19937 engine_{seed_};
  const testing::ScopedTrace trace_;
};

}  // namespace zeltest
