#include "brenthaven/lists/listtemplate.h"

#include <algorithm>
#include <string>

#include "brenthaven/lists/listtexts.h"
#include "brenthaven/store/sdbfile.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kKeyBegin = "<+++";
constexpr std::string_view kKeyEnd = "+++>";
constexpr std::string_view kSubjectKey = "Subject:";
constexpr std::string_view kBlanks = " \t";
constexpr size_t kNone = std::string_view::npos;

bool IsAscii(SString const &text) {
  return std::all_of(text.View().begin(), text.View().end(), [](char c) { return static_cast<signed char>(c) >= 0; });
}

}  // namespace

SString ListTemplateText(SString const &key) {
  Sdbfile settings("List-Manager", 0, kProductWord);
  if (settings.Open("Messages", 0)) {
    SStringList const lines = settings.Get(key);
    if (lines.Length() > 0) return lines.Join(SString(kLineEnd));
  }
  return listtexts::TextOf(key.View());
}

SString FillListTemplate(std::string_view text, std::span<SListTemplateValue const> values) {
  SString filled("");
  while (!text.empty()) {
    size_t const begin = text.find(kKeyBegin);
    size_t const end = begin == kNone ? kNone : text.find(kKeyEnd, begin + kKeyBegin.size());
    if (end == kNone) break;
    std::string_view const key = text.substr(begin + kKeyBegin.size(), end - begin - kKeyBegin.size());
    auto const row = std::find_if(values.begin(), values.end(), [key](auto const &each) { return each.key == key; });
    bool const known = row != values.end();
    filled.Append(text.substr(0, begin));
    filled.Append(known ? row->value.View() : text.substr(begin, kKeyBegin.size()));
    text.remove_prefix(known ? end + kKeyEnd.size() : begin + kKeyBegin.size());
  }
  return filled.Append(text);
}

SListTemplate::SListTemplate(SString const &text) : body("") {
  std::string_view rest = text.View();
  bool hasSubject = false;
  while (!rest.empty()) {
    size_t const end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == kNone ? rest.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!hasSubject && line.starts_with(kSubjectKey)) {
      hasSubject = true;
      subject = SString(line.substr(std::min(line.find_first_not_of(kBlanks, kSubjectKey.size()), line.size())));
      continue;
    }
    body.Append(line).Append(kLineEnd);
  }
}

SMIME PlainListBody(SString const &text) {
  if (!IsAscii(text)) return SMIME(SStringList({"MIME/text/plain; charset=utf-8/8bit", SString(""), text}));
  SMIME body;
  body.AddPart("text", "plain", "7bit", text);
  return body;
}
