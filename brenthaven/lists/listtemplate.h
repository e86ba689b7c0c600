// brenthaven/lists/listtemplate.h - the texts of list mail, from the settings and filled in.
#pragma once
#include <span>
#include <string_view>

#include "brenthaven/mime/smime.h"
#include "brenthaven/text/sstring.h"

// The text of a key: what "Messages" of the list manager's settings has, a line in each value or several, or else what
// is shipped (listtexts.h). Empty when neither has one.
SString ListTemplateText(SString const &key);

// A text in two: what stands behind the first "Subject:" that begins a line, and all other lines, each ended by CR LF.
// Taken apart before values are filled in, so that none of them opens a line of its own.
struct SListTemplate {
  explicit SListTemplate(SString const &text);
  SString subject;
  SString body;
};

struct SListTemplateValue {
  std::string_view key;
  SString value;
};

// Replaces each "<+++key+++>" by its value, in one walk over the text, so that a key in a value stays as it is: an
// address may look like one. Unknown keys stay.
SString FillListTemplate(std::string_view text, std::span<SListTemplateValue const> values);

// A text/plain body. Texts are the administrator's: what is not plain ASCII is taken for UTF-8.
SMIME PlainListBody(SString const &text);
