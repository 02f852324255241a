// Allocates in a function that is inlined, and by operator new. Tests know the lines with marks.

#include <cstdlib>

namespace {

void* volatile g_blocks[100];

[[gnu::always_inline]] inline void* MakeBlock() {
  return std::malloc(1234);  // line 10
}

}  // namespace

namespace subject {

[[gnu::noinline]] void Fill(int count) {
  for (int i = 0; i < count; ++i) g_blocks[i] = MakeBlock();  // line 18
}

}  // namespace subject

int main(int argc, char**) {
  subject::Fill(99 + argc);     // line 24
  g_blocks[0] = new char[777];  // line 25
}
