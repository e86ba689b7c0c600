// brenthaven/spool/message.h - a file of the spool, known by its path.
#pragma once
#include "brenthaven/text/sstring.h"

// A named file and the last error met on it. Holds the path alone: nothing is opened, made or removed here.
class SMessage {
public:
  static constexpr int kNoPathError = -11;  // a write was asked for before the file had a name

  explicit SMessage(SString const &path = SString());
  SMessage(SMessage const &) = default;
  SMessage &operator=(SMessage const &) = default;
  virtual ~SMessage();
  virtual SString GetFilename() const;  // the path as it was stored
  virtual void PutFilename(SString const &path);

  int GetError() const { return _error; }  // 0 for none
  void ClearError() { _error = 0; }

protected:
  SString _path;
  int _error;
};

// Stands for a body file, whose raw bytes are never read through a field table.
class SBody : public SMessage {
public:
  using SMessage::SMessage;
};
