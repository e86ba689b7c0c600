// brenthaven/mime/smime.h - a message body as MIME sees it, and Base64.
//
// A body is a tree one level deep: a main type and, for a multipart body, lists that run in step, an entry for each
// part. Nested multiparts are flattened: their parts join the same lists and the container adds none. At most 16 levels
// and 10,000 parts are told apart; what lies beyond is one text part.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

class SHeader;

class SMIME {
public:
  SMIME() = default;  // an empty text/plain body, 7bit

  // Parses a body by its header. Without MIME-Version: the body is one text, whatever it holds. Base64 is decoded.
  SMIME(SHeader const &header, SString const &body);

  // Builds from the list that operator SStringList made, or from plain texts, which make a text/plain body together.
  // The values of the list stand in this order; a content is never taken for a row, since the order tells them apart:
  //   "MIME/" main "/" sub "/" encoding, boundary, then for a multipart body each part:
  //                                               "MIME/" main "/" sub "/" encoding, name, content
  //                                      and for any other its contents
  //   "MIME/", content                   a body without MIME-Version:
  SMIME(SStringList const &description);
  SMIME(SMIME const &) = default;
  SMIME &operator=(SMIME const &) = default;
  virtual ~SMIME() = default;

  // For building: the type, in lower case, of the whole; a boundary, which a multipart body needs; parts or, for a body
  // that is not multipart, contents (AddPart and its first four arguments then count for nothing but the content).
  void SetType(SString const &mainType, SString const &subtype);
  void SetBoundary(SString const &boundary) { _boundary = boundary; }
  void AddPart(SString const &mainType, SString const &subtype, SString const &encoding, SString const &content,
               SString const &name = SString());

  SString const &MainType() const { return _mainType; }
  SString const &Subtype() const { return _subtype; }
  SString const &Encoding() const { return _encoding; }  // of the text that operator SString last gave
  SString const &Boundary() const { return _boundary; }
  int HasVersion() const { return _mime; }  // 0 when the header had no MIME-Version:

  // One entry for each part. A body that is not multipart has one content and no entry in the other lists.
  SStringList const &PartMainTypes() const { return _mainTypes; }
  SStringList const &PartSubtypes() const { return _subtypes; }
  SStringList const &PartEncodings() const { return _encodings; }
  SStringList const &Contents() const { return _contents; }
  SStringList const &PartNames() const { return _names; }

  // The body's text. A part whose encoding is "base64" is encoded, and so is a body of one content that is not plain
  // text. Sets Encoding() to what the text needs. Empty for a multipart body whose lists are out of step.
  operator SString();
  operator SStringList();        // the description that the constructor reads back
  unsigned int IsEmpty() const;  // 1 for a plain text with nothing but white space in its first content

private:
  // The parts of a multipart text, in order, head and content together. Linear in the text. What stands in front of the
  // first delimiter, behind the closing one, or behind the last when none closes, is no part.
  SStringList _ParseMIMESections(SString const &text, SString const &boundary);
  void _ParseParts(SStringList const &sections);
  SString _MultipartText() const;

  SString _mainType = "text";
  SString _subtype = "plain";
  SString _encoding = "7bit";
  SString _boundary;
  int _mime = 1;
  SStringList _mainTypes;
  SStringList _subtypes;
  SStringList _encodings;
  SStringList _contents;
  SStringList _names;  // not written into the body's text
};

// Base64 (RFC 2045 section 6.8) in lines of 76 letters, each ended by CR LF. Undefined in, undefined out; empty in,
// empty out.
SString EncodeBase64(SString const &text);

// Letters outside the alphabet are dropped, padding ends the text, and a last group of fewer than four letters is
// dropped: "QQ" gives nothing.
SString DecodeBase64(SString const &text);

// A fresh boundary. It holds a blank, so it has to be quoted in a header, and "_ _", which no encoded text holds.
SString CreateMIMEBoundary();
