// brenthaven/exploder/textframe.h - a list's prologue and epilogue around the text of a posting.
#pragma once
#include "brenthaven/spool/header.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Texts go into a body that is one plain text by its header: text/plain, or no Content-Type:, in 7bit, 8bit,
// quoted-printable or base64, in a character set that has ASCII as it is; texts with other bytes than ASCII need UTF-8
// there and here, and an encoding that carries them. Every other message (HTML, multipart, signed, encrypted,
// attachments) stays as it came, byte for byte.
class STextFrame {
public:
  static constexpr long kMostEncodedBytes = 4 << 20;  // a larger base64 body is not decoded and stays as it is

  // List-Prologue and List-Epilogue, a line each value.
  STextFrame(SStringList const &prologue, SStringList const &epilogue);
  bool IsEmpty() const { return _prologue.Length() == 0 && _epilogue.Length() == 0; }

  enum class Result { kWritten, kUnfit, kFailed };
  // Writes the body file at `from`, framed, to the new file `to`. kUnfit: the message does not take the texts, and
  // kFailed: with errno; nothing stands under `to` then.
  Result Write(SHeader const &header, SString const &from, SString const &to) const;

private:
  enum class Form { kPlain, kQuotedPrintable, kBase64 };
  struct Fit;
  bool _FitsInto(SHeader const &header, Fit &fit) const;
  static Result _WriteBase64(SString const &prologue, SString const &epilogue, SString const &from, SString const &to);

  SString _prologue;  // whole lines, CR LF behind each
  SString _epilogue;
  bool _isAscii = true;
  bool _isUtf8 = true;
};
