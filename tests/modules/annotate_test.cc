// Stops the annotated program at each of its annotations and looks into the register that it names.
// The program itself says what should be there.

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "examples/heapscope/annotations.h"

namespace {

using Annotations = std::multimap<uint64_t, std::pair<std::string, ZelZCAArgument>>;

Annotations AnnotationsOf(const std::string& program, uint64_t base) {
  std::pair<Annotations, uint64_t> result = {{}, base};
  const auto keep = [](const ZelZCARecord& record, void* context) {
    auto& [annotations, loadedAt] = *static_cast<std::pair<Annotations, uint64_t>*>(context);
    annotations.insert({loadedAt + record.address, {record.name, record.arguments[0]}});
  };
  heapscope::ReadAnnotations(program.c_str(), keep, &result);
  return result.first;
}

uint64_t ValueOf(const ZelZCAArgument& argument, const user_regs_struct& r) {
  const unsigned long long byNumber[] = {r.rax, r.rdx, r.rcx, r.rbx, r.rsi, r.rdi, r.rbp, r.rsp,
                                         r.r8,  r.r9,  r.r10, r.r11, r.r12, r.r13, r.r14, r.r15};
  return argument.isRegister == 1 ? byNumber[argument.value] : argument.value;
}

// Of a program that was started but has not run yet; 0 when it lies where its file says.
uint64_t LoadAddress(pid_t process, const char* program) {
  std::ifstream mappings("/proc/" + std::to_string(process) + "/maps"), file(program);
  uint64_t start = 0;
  mappings >> std::hex >> start;
  file.seekg(offsetof(Elf64_Ehdr, e_type));
  return file.get() == ET_DYN ? start : 0;
}

class AnnotateTest : public testing::TestWithParam<const char*> {};

TEST_P(AnnotateTest, RegistersHoldTheArguments) {
  int output[2];
  ASSERT_EQ(0, pipe(output));
  const pid_t process = fork();
  if (process == 0) {
    dup2(output[1], STDOUT_FILENO);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
    execl(GetParam(), GetParam(), nullptr);
    _exit(1);
  }
  close(output[1]);
  int status = 0;
  ASSERT_EQ(process, waitpid(process, &status, 0));
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "ptrace is not allowed";
  const Annotations annotations = AnnotationsOf(GetParam(), LoadAddress(process, GetParam()));
  EXPECT_LE(5u, annotations.size());
  const auto set = [&](uint64_t address, bool breakpoint) {
    static std::map<uint64_t, long> code;
    const long word = ptrace(PTRACE_PEEKTEXT, process, address, nullptr);
    const long original = code.try_emplace(address, word).first->second;
    const long changed = breakpoint ? (word & ~0xFFl) | 0xCC : (word & ~0xFFl) | (original & 0xFF);
    ASSERT_EQ(0, ptrace(PTRACE_POKETEXT, process, address, changed));
  };
  for (const auto& annotation : annotations) set(annotation.first, true);
  std::ostringstream seen, said;
  while (ptrace(PTRACE_CONT, process, nullptr, nullptr) == 0 &&
         waitpid(process, &status, 0) == process && WIFSTOPPED(status)) {
    user_regs_struct registers;
    ASSERT_EQ(0, ptrace(PTRACE_GETREGS, process, nullptr, &registers));
    const auto [first, last] = annotations.equal_range(--registers.rip);
    ASSERT_NE(first, last);
    for (auto at = first; at != last; ++at)
      seen << at->second.first << ' ' << ValueOf(at->second.second, registers) << '\n';
    set(registers.rip, false);
    ptrace(PTRACE_SETREGS, process, nullptr, &registers);
    ptrace(PTRACE_SINGLESTEP, process, nullptr, nullptr);
    waitpid(process, &status, 0);
    set(registers.rip, true);
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  char text[4096];
  for (ssize_t n = 0; (n = read(output[0], text, sizeof text)) > 0;) said.write(text, n);
  close(output[0]);
  EXPECT_EQ(said.str(), seen.str());
}

INSTANTIATE_TEST_SUITE_P(, AnnotateTest, testing::Values(ANNOTATED, ANNOTATED_DEBUG));

}  // namespace
