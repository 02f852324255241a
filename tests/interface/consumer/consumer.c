#include <zelrt.h>

int main(void) {
  return __ZelRtStartup() == ZELRT_VERSION_CODE && __zelNumberOfProcessors >= 1 ? 0 : 1;
}
