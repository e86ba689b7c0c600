// Any text as the header of a message that is stored in a mailbox: what is stored is the header less whole lines, those
// of fields that only a mailbox client may set. And any text line by line.
#include <strings.h>
#include <sys/mman.h>

#include <algorithm>

#include "brenthaven/mailbox/storedform.h"
#include "brenthaven/mime/linebreak.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::string_view kBody = "body\r\n";

bool IsClientField(std::string_view line) {
  constexpr std::string_view kFields[] = {"Status:", "X-Key-Digest:", "Apparently-To:"};
  return std::any_of(std::begin(kFields), std::end(kFields), [line](std::string_view field) {
    return line.size() >= field.size() && strncasecmp(line.data(), field.data(), field.size()) == 0;
  });
}

void ExpectLines(SString const &text) {
  SLineBreaker whole(text, 0);
  SLineBreaker chopped(text, 1);
  SString joined("");
  SString line;
  SString bare;
  while (whole.ReadLine(line)) {
    fuzz::Expect(chopped.ReadLine(bare) == 1, "a line is missing without its line end");
    fuzz::Expect(whole.GetCurrentOffset() == joined.Length() && chopped.GetNextOffset() == whole.GetNextOffset(),
                 "a line stands elsewhere");
    std::string_view const end = line.View().substr(bare.View().size());
    fuzz::Expect(line.HasPrefix(bare) && (end == "\n" || end == "\r\n" || end.empty()), "a line ends otherwise",
                 line.View());
    fuzz::Expect(bare.View().find('\n') == std::string_view::npos, "two lines in one", line.View());
    joined += line;
    fuzz::Expect(joined + whole.GetRemainder() == text, "lines and remainder are not the text", text.View());
  }
  fuzz::Expect(joined == text && chopped.ReadLine(bare) == 0, "the lines are not the text", text.View());
}

// Line by line, with the continuation lines of a field that is dropped.
std::string Filtered(SString const &header) {
  SLineBreaker breaker(header, 0);
  std::string kept;
  bool isDropped = false;
  for (SString line; breaker.ReadLine(line);) {
    bool const continues = line[0] == ' ' || line[0] == '\t';
    if (!continues) isDropped = IsClientField(line.View());
    if (!isDropped) kept += line.View();
  }
  return kept;
}

std::string Stored(SString const &header) {
  static int const memory = memfd_create("stored", MFD_CLOEXEC);
  fuzz::Expect(memory >= 0 && ftruncate(memory, 0) == 0 && lseek(memory, 0, SEEK_SET) == 0, "no memory file");
  SMappedFileWrite headerText;
  SMappedFileWrite bodyText;
  headerText.CreateCached("header");
  headerText.Write(header);
  bodyText.CreateCached("body");
  bodyText.Write(kBody.data(), kBody.size());
  SControl control("m");
  control["User-From:"] = SStringList("SMTP <ann@example.org>");
  control.SetHeaderBodyData(&headerText, &bodyText);
  SStringList errors;
  SStoredForm form;
  fuzz::Expect(form.Read(control, &errors), "a message can't be read");
  fuzz::Expect(form.WriteTo(memory), "a message can't be written");
  std::string stored(static_cast<size_t>(form.Length()), '\0');
  fuzz::Expect(pread(memory, stored.data(), stored.size() + 1, 0) == form.Length(), "another length than was told");
  return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  setenv("Brenthaven", "/nonexistent", 1);
  SString const text = fuzz::Text(fuzz::View(data, size));
  ExpectLines(text);
  std::string const want = "Return-Path: <ann@example.org>\r\n" + Filtered(text) + "\r\n" + std::string(kBody);
  fuzz::Expect(Stored(text) == want, "what is stored is not the header less whole lines", text.View());
  return 0;
}
