#include <zelrt.h>

int main() {
  const zelrt::SystemInformation information;
  const uint64_t total = information.getValue(zelrt::SystemInformation::TotalMemory);
  return __ZelRtStartup() == ZELRT_VERSION_CODE && total > 0 ? 0 : 1;
}
