#include "brenthaven/spool/serve.h"

#include <gmock/gmock.h>

#include <thread>

#include "brenthaven/spool/keys.h"
#include "tests/spool/spooltest.h"

using ::testing::ElementsAre;

namespace {

int g_modules_made = 0;

class CountingModule : public ProbeModule {
public:
  CountingModule() {
    ++g_modules_made;
    onMail = [this] { return static_cast<unsigned>(GetControl().RemoveMessage()); };
    loads = GetEnv("Refuse").Length() == 0;
  }
};

class ServeTest : public SpoolTest {
protected:
  // What the loop answers to an input, which it gets through a pipe in pieces of the given size.
  std::string Serve(std::string const &input, size_t piece = 1 << 20) {
    int in[2];
    int out[2];
    if (pipe(in) != 0 || pipe(out) != 0) abort();
    std::thread writer([&] {
      for (size_t i = 0; i < input.size(); i += piece)
        if (write(in[1], input.data() + i, std::min(piece, input.size() - i)) < 0) abort();
      close(in[1]);
    });
    char const *const argv[] = {"Probe", "Serve", nullptr};
    EXPECT_EQ(ServeMessages(in[0], out[1], argv, [] { return std::make_unique<CountingModule>(); }), 0);
    writer.join();
    close(in[0]);
    close(out[1]);
    std::string answers;
    char block[4096];
    for (ssize_t got; (got = read(out[0], block, sizeof block)) > 0;) answers.append(block, static_cast<size_t>(got));
    close(out[0]);
    return answers;
  }
};

}  // namespace

TEST_F(ServeTest, EachLineIsAMessageWithAModuleOfItsOwn) {
  for (char const *name : {"a", "b", "ProcessQueue"}) PutControl(name, "Probe");
  PutControl("other", "Other");
  EXPECT_EQ(Serve("a\nmissing\nother\nb\nProcessQueue\n"), "0\n105\n102\n0\n0\n");
  EXPECT_EQ(g_modules_made, 5);
  EXPECT_THAT(Files(), ElementsAre("control/other-Control"));  // a name that is a word elsewhere is a name here
}

TEST_F(ServeTest, LinesComeWholeHoweverTheBytesArrive) {
  PutControl("abc", "Probe");
  PutControl("torn", "Probe");
  EXPECT_EQ(Serve("abc\ntorn", 1), "0\n");
  EXPECT_TRUE(Exists("control/torn-Control"));  // its line end never came: it was not asked for
}

TEST_F(ServeTest, WhatIsNoNameIsAnsweredAsUnreadable) {
  PutControl("a", "Probe");
  std::string const longest(kMaxMessageName, 'x');
  EXPECT_EQ(Serve("\n\ta\na\x7f\n" + longest + "\n" + longest + "x\n" + std::string(1 << 20, 'y') + "\na\n"),
            "105\n105\n105\n105\n105\n105\n0\n");
  EXPECT_EQ(g_modules_made, 2);  // for the longest name there may be, and for "a"
}

TEST_F(ServeTest, SettingsAreLoadedForEachMessage) {
  setenv("Refuse", "yes", 1);
  PutControl("a", "Probe");
  EXPECT_EQ(Serve("a\n"), "101\n");
}

TEST_F(ServeTest, WithoutTheWordOneModuleRuns) {
  PutControl("a", "Probe");
  char const *argv[] = {"Probe", "MessageFile", "a", nullptr};
  EXPECT_EQ(RunModule<CountingModule>(3, argv), kModuleDone);
  EXPECT_EQ(g_modules_made, 1);
  EXPECT_EQ(CountIn("control"), 0);
}
