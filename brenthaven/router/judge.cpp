#include "brenthaven/router/judge.h"

#include "brenthaven/router/settings.h"

void SSidelineSettings::Load(SNamedStringList const &config) {
  struct Flag {
    char const *key;
    bool SSidelineSettings::*field;
  };
  constexpr Flag kFlags[] = {
      {"SideLineNullAddress", &SSidelineSettings::nullAddress},
      {"SideLineNoDomainAddress", &SSidelineSettings::noDomainAddress},
      {"SideLineOnlyHostDomain", &SSidelineSettings::onlyHostDomain},
      {"SideLineDomain", &SSidelineSettings::domain},
      {"SideLineNoMXDomain", &SSidelineSettings::noMxDomain},
      {"SideLineIPDomain", &SSidelineSettings::ipDomain},
      {"SideLineDestNumExceedMsg", &SSidelineSettings::destNumExceedMsg},
      {"SideLineTCPDestNumExceedMsg", &SSidelineSettings::tcpDestNumExceedMsg},
      {"SideLineRBL", &SSidelineSettings::rbl},
      {"SideLineDetail", &SSidelineSettings::detail},
      {"LogNullFrom", &SSidelineSettings::logNullFrom},
      {"LogNoDomain", &SSidelineSettings::logNoDomain},
      {"LogOnlyHost", &SSidelineSettings::logOnlyHost},
      {"LogLookupFail", &SSidelineSettings::logLookupFail},
      {"LogMxLookupFail", &SSidelineSettings::logMxLookupFail},
      {"LogIPDomain", &SSidelineSettings::logIpDomain},
      {"LogRBLCheck", &SSidelineSettings::logRblCheck},
      {"LogNumRecipient", &SSidelineSettings::logNumRecipient},
      {"LogNumRecipient_TCP", &SSidelineSettings::logNumRecipientTcp},
      {"LogDetailFilter", &SSidelineSettings::logDetailFilter},
  };
  for (Flag const &flag : kFlags) this->*flag.field = config.Get(flag.key).Get(0) == "yes";
  destNumMax = ReadCount(config, "SideLineDestNumMax");
  tcpDestNumMax = ReadCount(config, "SideLineTCPDestNumMax");
  rblServer = config.Get("SideLineRBLServer").Get(0);
}

void SSidelineAction::Load(SStringList const &values) {
  *this = SSidelineAction();
  for (SString const &value : values) {
    if (value == "return" || value == "Delete" || value == "hold") action = value;
    if (value == "log") log = true;
    if (value == "mail") mail = true;
  }
}

unsigned int SSidelineJudge::InitFilters(SStringList const &) { return 1; }

unsigned int SSidelineJudge::Judge(SControl &, SSidelineSettings const &, SString &) { return 1; }

unsigned int SSidelineJudge::Sideline(SControl &, SSidelineAction const &, SString const &) { return 0; }
