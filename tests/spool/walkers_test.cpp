// Several processes walk one queue at once. Exclusion rests on a rename that one of them wins.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <fstream>

#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

namespace {

constexpr int kWalkers = 4;
constexpr int kMessages = 1000;

class WalkersTest : public SpoolTest {
protected:
  static std::string Name(int i) { return "m" + std::to_string(i); }

  // One walk of a process of its own. Each message that it finishes is a line in its own file. Every third message is
  // put off on its first pass, so that walks also meet what others have just deferred.
  void Walk(int walker) const {
    ProbeModule probe;
    std::ofstream done(Path("run/walker" + std::to_string(walker)));
    probe.onMail = [&] {
      SControl &control = probe.GetControl();
      int const number = std::stoi(Str(control.GetFilename()).substr(1));
      if (number % 3 == 0 && control.GetTraceCount() == 0) return 0U;
      done << Str(control.GetFilename()) << std::endl;
      return static_cast<unsigned>(control.RemoveMessage());
    };
    probe.ProcessQueue();
  }
};

}  // namespace

TEST_F(WalkersTest, FourWalksLoseAndDoubleNothing) {
  for (int i = 0; i < kMessages; ++i) {
    PutFile("deferred/Probe/" + Name(i) + "-Control", ControlText("Probe"));
    PutMessage(Name(i));
  }
  for (int round = 0; round < 2; ++round) {  // the second takes what the first put off
    std::vector<pid_t> walkers;
    for (int walker = 0; walker < kWalkers; ++walker) {
      pid_t const pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        Walk(round * kWalkers + walker);
        _exit(0);
      }
      walkers.push_back(pid);
    }
    for (pid_t const pid : walkers) {
      int status = 0;
      ASSERT_EQ(waitpid(pid, &status, 0), pid);
      EXPECT_EQ(status, 0);
    }
  }
  std::vector<std::string> finished;
  for (int walker = 0; walker < 2 * kWalkers; ++walker) {
    std::ifstream lines(Path("run/walker" + std::to_string(walker)));
    for (std::string line; std::getline(lines, line);) finished.push_back(line);
  }
  std::vector<std::string> all;
  for (int i = 0; i < kMessages; ++i) all.push_back(Name(i));
  EXPECT_THAT(finished, ::testing::UnorderedElementsAreArray(all));
  EXPECT_EQ(CountIn("control"), 0);
  EXPECT_EQ(CountIn("messages"), 0);
}
