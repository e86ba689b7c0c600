// Every message of the corpus, from the command through the dispatcher into a mailbox, byte for byte.
#include <map>
#include <optional>

#include "tests/road/road_fixture.h"

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// What a submission keeps of a header line: CR LF, no blank before the colon, one behind it. Nothing when the line
// belongs to no header.
std::optional<std::string> KeptLine(std::string const &line, bool first) {
  if (!first && !line.empty() && IsBlank(line[0])) return line + "\r\n";
  size_t name = 0;
  while (name < line.size() && line[name] > 32 && line[name] < 127 && line[name] != ':') ++name;
  size_t colon = name;
  while (colon < line.size() && IsBlank(line[colon])) ++colon;
  if (name == 0 || colon == line.size() || line[colon] != ':') return std::nullopt;
  bool const blank = colon + 1 < line.size() && line[colon + 1] == ' ';
  return line.substr(0, name) + (blank ? ":" : ": ") + line.substr(colon + 1) + "\r\n";
}

// The file that a mailbox gets of a submitted message; nothing when a submission must refuse it.
std::optional<std::string> Stored(std::string const &message, std::string const &sender) {
  std::string header;
  size_t at = 0;
  bool dropping = false;
  for (bool first = true; at < message.size(); first = false) {
    size_t const newline = message.find('\n', at);
    std::string line = message.substr(at, newline == std::string::npos ? newline : newline - at);
    size_t const next = newline == std::string::npos ? message.size() : newline + 1;
    if (newline != std::string::npos && !line.empty() && line.back() == '\r') line.pop_back();
    std::optional<std::string> const kept = KeptLine(line, first);
    if (line.empty()) at = next;  // the blank line belongs to neither side
    if (!kept) break;
    at = next;
    if (!IsBlank(line[0])) {
      std::string name = kept->substr(0, kept->find(':'));
      for (char &c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      dropping = name == "status" || name == "x-key-digest" || name == "apparently-to";
    }
    if (!dropping) header += *kept;
    if (first && header.empty() && !dropping) return std::nullopt;
  }
  if (header.empty()) return std::nullopt;
  return "Return-Path: <" + sender + ">\r\n" + header + "\r\n" + message.substr(at);
}

TEST_F(RoadTest, CorpusArrivesByteForByteOrIsRefused) {
  StartDispatcher();
  std::map<std::string, std::string> expected;  // name of the file -> stored bytes
  int refused = 0;
  auto const submit = [&](std::string const &name, std::string const &message) {
    ProgramRun const run = Brenthaven({"submit", "-f", "sender@far.example", "ann@example.org"}, message);
    std::optional<std::string> const stored = Stored(message, "sender@far.example");
    ASSERT_EQ(run.code, stored ? 0 : EX_DATAERR) << name << ": " << run.err;
    if (stored)
      expected[name] = *stored;
    else
      ++refused;
  };
  for (auto const &entry : std::filesystem::directory_iterator(CORPUS)) {
    std::ifstream in(entry.path(), std::ios::binary);
    submit(entry.path().filename(), {std::istreambuf_iterator<char>(in), {}});
  }
  submit("dropped fields",
         "Status : RO\r\n more\r\nA: b\r\napparently-TO: x\r\n\ty\r\nX-Key-Digest:z\r\nC:\td\r\n\r\nbody");
  EXPECT_GT(expected.size(), 80u);
  EXPECT_GT(refused, 2);
  EXPECT_TRUE(Eventually([&] { return StoredFor("ann").size() == expected.size() && SpoolIsEmpty(); }));
  Words stored = StoredFor("ann");
  for (auto const &[name, bytes] : expected) {
    auto const found = std::find(stored.begin(), stored.end(), bytes);
    EXPECT_NE(found, stored.end()) << name << " did not arrive as\n" << bytes.substr(0, 2000);
    if (found != stored.end()) stored.erase(found);
  }
  for (std::string const &bytes : stored) ADD_FAILURE() << "arrived, but nobody sent:\n" << bytes.substr(0, 2000);
}

}  // namespace
