// brenthaven/spool/request.h - a control file used as a question to another module, and its answer.
#pragma once
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"

// The question and the answer travel in the control file; two datagrams announce them. A request is no record of mail:
// it is not flushed, has no header or body, and is never deferred.
class SRequest : public SControl {
public:
  SRequest();
  // The control as a request: its name, fields and loaded flag. Module name and directories come from the environment.
  SRequest(SControl const &control);

  // Asks the module named by function and waits up to timeout seconds (fractions count) for its answer. 1 when the
  // word of it came and the file was read into this object. The request's file is gone afterwards in every case.
  // Anybody on this host can send the word: who relies on the answer looks at IsAnswered.
  int Ask(SString const &function, double timeout);
  // Whether somebody has written the file since the last Ask wrote it: a module's answer has its line in Trace:.
  unsigned int IsAnswered() const { return Get(kKeyTrace).Length() > _askedTrace; }
  // Writes the fields as the answer and tells the asker. 1 when both worked. 0 when this object never came from a file,
  // and when Return-Path: names no port; then the request is removed, since nobody waits.
  int Answer();

private:
  int _askedTrace = 0;  // commits of the question
};
