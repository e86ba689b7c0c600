#include "brenthaven/spool/header.h"

#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"

SHeader::SHeader() : SField(0, 1) {}

SHeader::SHeader(SString const &name) : SField(0, 1) { SHeader::PutFilename(name); }

SString SHeader::GetFilename() const { return BaseName(_path, kHeaderSuffix); }

void SHeader::PutFilename(SString const &name) { _path = _messageDir + name + kHeaderSuffix; }

int SHeader::Read(SString const &name) {
  PutFilename(name);
  return SField::Read();
}

int SHeader::Write(SString const &name) {
  PutFilename(name);
  return SField::Write();
}
