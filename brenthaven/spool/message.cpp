#include "brenthaven/spool/message.h"

SMessage::SMessage(SString const &path) : _path(path), _error(0) {}
SMessage::~SMessage() = default;
SString SMessage::GetFilename() const { return _path; }
void SMessage::PutFilename(SString const &path) { _path = path; }
