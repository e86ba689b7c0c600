// brenthaven/spool/header.h - the header file of a message: a field file whose keys are compared without regard to
// case.
#pragma once
#include "brenthaven/spool/field.h"

// Known by its message's name N; the file is messages/N-Header below the spool's root.
class SHeader : public SField {
public:
  SHeader();
  explicit SHeader(SString const &name);
  SString GetFilename() const override;            // the message name
  void PutFilename(SString const &name) override;  // takes a message name, whatever it holds
  SString GetHeaderFilename() const { return _path; }
  using SField::Read;
  using SField::Write;
  int Read(SString const &name) override;
  int Write(SString const &name) override;
};
