#include "brenthaven/listmanager/commands.h"

#include <gtest/gtest.h>

#include <string>

#include "brenthaven/lists/slistkey.h"

namespace {

// What a command says, as one text: "subscribe digest list=news address=a@b key=K password=P what=W".
std::string Told(SListCommand const &command) {
  std::string text = ListVerbName(command.verb);
  if (command.digest) text += " digest";
  struct {
    char const *name;
    SString const &value;
  } const parts[] = {{"list", command.list},
                     {"address", command.address},
                     {"what", command.what},
                     {"key", command.key},
                     {"password", command.password}};
  for (auto const &part : parts)
    if (part.value.Length() > 0) text += std::string(" ") + part.name + "=" + std::string(part.value.View());
  return text;
}

std::string Parsed(std::string const &line) {
  SListCommand command;
  switch (ParseListCommand(SString(line), command)) {
    case SListParse::kCommand:
      return Told(command);
    case SListParse::kMalformed:
      return "malformed";
    case SListParse::kUnknown:
      return "unknown";
  }
  return "";
}

TEST(ListCommandTest, WordsBecomeCommands) {
  SListKeySubject const subject = {"a@b.example", "news"};
  std::string const digestKey(MakeDatedListKey(subject, SListIntent::kSubscribeDigest, 20000, "s").View());
  std::string const leaveKey(MakeDatedListKey(subject, SListIntent::kUnsubscribe, 20000, "s").View());
  struct {
    std::string line, want;
  } const cases[] = {
      {"subscribe", "Subscribe"},
      {"  SubScribe\tnews  ", "Subscribe list=news"},
      {"subscribe a@b.example DIGEST news", "Subscribe digest list=news address=a@b.example"},
      {"unsubscribe news a@b.example", "Unsubscribe list=news address=a@b.example"},
      {"subscribe Jo Doe", "malformed"},
      {"subscribe a@b.example c@d.example", "malformed"},
      {"subscribe digest digest", "Subscribe digest list=digest"},
      {"confirm 0123abcd unsubscribe news", "Unsubscribe list=news key=0123abcd"},
      {"confirm 0123abcd", "malformed"},  // a short key does not say what it is for
      {"confirm", "malformed"},
      {"confirm " + digestKey, "Subscribe digest key=" + digestKey},
      {"confirm " + leaveKey + " news a@b.example", "Unsubscribe list=news address=a@b.example key=" + leaveKey},
      {"confirm " + leaveKey + " subscribe", "Subscribe key=" + leaveKey},
      {"confirm 0123abcd lists", "malformed"},
      {"confirm 0123abcd approve pw subscribe", "malformed"},
      {"approve pw subscribe news a@b.example", "Subscribe list=news address=a@b.example password=pw"},
      {"approve \"two words\" unsubscribe a@b.example", "Unsubscribe address=a@b.example password=two words"},
      {"approve pw accept 2026@mail news", "Accept list=news what=2026@mail password=pw"},
      {"approve pw reject", "malformed"},
      {"approve pw", "malformed"},
      {"approve \"\" subscribe news", "malformed"},
      {"approve pw lists", "malformed"},
      {"accept 2026@mail", "malformed"},  // needs an owner
      {"which", "Which"},
      {"which one", "malformed"},
      {"lists", "Lists"},
      {"info news", "Info list=news"},
      {"who news", "Who list=news"},
      {"help me, please!", "Help"},
      {"end of it", "End"},
      {"subscribes", "unknown"},
      {"please subscribe", "unknown"},
      {"", "unknown"},
      {std::string("subscribe\0 news", 15), "unknown"},
      {"subscribe new\x1bs", "unknown"},
      {"subscribe news\x7f", "unknown"},
  };
  for (auto const &c : cases) EXPECT_EQ(Parsed(c.line), c.want) << c.line;
}

TEST(ListCommandTest, ShownLineHasNoPasswordAndNoSurprises) {
  struct {
    std::string line, want;
  } const cases[] = {
      {"approve sesame subscribe news", "approve ****** subscribe news"},
      {"APPROVE \"open sesame\" frobnicate", "APPROVE ****** frobnicate"},
      {"approve sesame", "approve ******"},
      {"caf\xc3\xa9\x1b[2J\tx", "caf???[2J x"},
      {std::string(300, 'a'), std::string(197, 'a') + "..."},
  };
  for (auto const &c : cases) {
    SListCommand command;
    (void)ParseListCommand(SString(c.line), command);
    EXPECT_EQ(command.shown.View(), c.want);
  }
}

}  // namespace
