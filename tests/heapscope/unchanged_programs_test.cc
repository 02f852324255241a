// Programs say and answer the same under heapscope. Those that are not there are skipped.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/heapscope/heapscope_run.h"

namespace {

constexpr char kPipeline[] = R"(
printf '%s\n' pear apple quince | sort | tr a-z A-Z
(exit 3) | cat; echo "${PIPESTATUS[@]}"
listing=$(ls -a / 2>&1); echo "$listing" | wc -l
nothing-of-this-name; echo "not found: $?"
sh -c 'kill -TERM $$'; echo "killed: $?"
for i in 1 2 3 4 5; do (echo "$i"; exit "$i") & wait $!; echo "$?"; done
exec sh -c 'echo replaced >&2; exit 4'
)";

constexpr char kThreadsAndChildren[] = R"(
import json, os, subprocess, sys, threading
lists = [[] for _ in range(4)]
def fill(mine):
    for i in range(2000):
        mine.append({'key': str(i) * 3, 'more': list(range(i % 50))})
threads = [threading.Thread(target=fill, args=(l,)) for l in lists]
for t in threads: t.start()
for _ in range(5):
    subprocess.run(['true'], check=True)
    child = os.fork()
    if child == 0: os._exit(len(json.dumps(lists[0])) > 0)
    assert os.WEXITSTATUS(os.waitpid(child, 0)[1]) == 1
for t in threads: t.join()
print(len(json.dumps(lists)))
sys.exit(5)
)";

constexpr char kRepository[] = R"(
repository=$(mktemp -d) && cd "$repository" || exit 1
export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null
export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a GIT_AUTHOR_DATE='2000-01-01T00:00:00Z'
export GIT_COMMITTER_NAME=c GIT_COMMITTER_EMAIL=c GIT_COMMITTER_DATE='2000-01-01T00:00:00Z'
git init -q . 2>/dev/null
for i in 1 2 3; do
  seq "$i" $((i * 300)) >file; git add file; git commit -q -m "change $i"
done
git log --stat -p; git gc -q; git fsck; git log --bad-option
status=$?
rm -rf "$repository"
exit "$status"
)";

constexpr char kDatabase[] = R"(
sqlite3 :memory: <<'SQL'
CREATE TABLE reading (id INTEGER PRIMARY KEY, sensor TEXT, value INTEGER);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000)
  INSERT INTO reading SELECT i, 'sensor ' || (i % 7), i * 7919 % 1007 FROM n;
CREATE INDEX by_sensor ON reading (sensor, value);
SELECT sensor, count(*), sum(value), group_concat(id) FROM reading GROUP BY sensor;
SELECT colour FROM reading;
SQL
)";

constexpr char kCompilation[] = R"(
directory=$(mktemp -d) && cd "$directory" || exit 1
echo '#include <stdio.h>
int main(void) { int unused; return printf("compiled
"); }' >program.c
gcc -O2 -Wall -S -o - program.c
gcc -g program.c && ./a.out
gcc missing.c
status=$?
rm -rf "$directory"
exit "$status"
)";

struct Program {
  const char* program;
  std::vector<std::string> arguments;
};
void PrintTo(const Program& program, std::ostream* stream) { *stream << program.program; }

class UnchangedProgramsTest : public testing::TestWithParam<Program> {};

TEST_P(UnchangedProgramsTest, OutputAndStatusAreTheSame) {
  const auto& [program, arguments] = GetParam();
  if (access(program, X_OK) != 0) GTEST_SKIP() << program << " is not installed";
  const Outcome plain = RunCommand({.arguments = arguments});
  const HeapscopeRun run(arguments);
  EXPECT_EQ(plain.status, run.GetOutcome().status);
  EXPECT_EQ(plain.output, run.GetOutcome().output);
  EXPECT_EQ(plain.errors, run.GetOutcome().errors);
  ASSERT_FALSE(run.Summaries().empty());
  for (const Summary& summary : run.Summaries())
    EXPECT_FALSE(summary.irregularities.contains("frees of blocks whose allocation was not seen"));
}

INSTANTIATE_TEST_SUITE_P(
    Programs, UnchangedProgramsTest,
    testing::Values(Program{SUBJECT, {SUBJECT, "Edges"}},
                    Program{"/bin/bash", {"/bin/bash", "-c", kPipeline}},
                    Program{"/usr/bin/python3", {"/usr/bin/python3", "-c", kThreadsAndChildren}},
                    Program{"/usr/bin/git", {"/bin/bash", "-c", kRepository}},
                    Program{"/usr/bin/sqlite3", {"/bin/bash", "-c", kDatabase}},
                    Program{"/usr/bin/gcc", {"/bin/bash", "-c", kCompilation}}));

}  // namespace
