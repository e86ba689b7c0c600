// brenthaven/router/smtprouter.h - the module "SMTP-Router": what becomes of each recipient of a message.
#pragma once
#include <memory>

#include "brenthaven/address/address821.h"
#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/regex/sperlregex.h"
#include "brenthaven/router/judge.h"
#include "brenthaven/router/routeobserver.h"
#include "brenthaven/router/routetable.h"
#include "brenthaven/spool/module.h"
#include "brenthaven/spool/request.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// Every message enters here. The router takes each entry of Channel-To: to a local account, an alias, a remote host or
// an error, and leaves behind one control for "SMTP-Deliver" a remote host, the hand-over of the local recipients to
// the account handler that it holds by value, an error record for what it refused, or nothing. LoadEnv once, then any
// number of messages one after another; no state of one message outlives its ProcessMail.
class SSMTPRouterModule : public SModule {
public:
  SSMTPRouterModule();
  ~SSMTPRouterModule() override;
  SSMTPRouterModule(SSMTPRouterModule const &) = delete;
  SSMTPRouterModule &operator=(SSMTPRouterModule const &) = delete;

  // Walks the deferred directory of this module and the directories in it, one for a host ("h") or for a host and a
  // count ("h,3"). One that is empty then is removed.
  void ProcessQueue() override;
  // Routes the message of the current control. 1: nothing of it is left to do here, because all of it is handed on,
  // refused with an error record, or an error record as a whole. 0: something could not be written or read; Channel-To:
  // then holds exactly what is left, and the caller writes and defers the control.
  unsigned int ProcessMail() override;
  // The settings of "SMTP-Router". 0 when "/Config", "/Error-Actions" or "/" can't be opened, or the judge refuses its
  // filters, which is logged.
  unsigned int LoadEnv() override;

  using SModule::ProcessRequest;
  // Answers in the request itself where mail for Address: would go: Account-To:, Channel-To: or neither, and the
  // address as understood under Address!, which is empty for none. With useDirectory the accounts are those that the
  // directory at the hosts, port and base given names for the addresses of LdapAuthDomains, and no others
  // (directorylookup.h): aliases still count, catch-all accounts don't. Always answers. An Error: in the answer
  // says that accounts or settings could not be read, so that an unknown address may be known.
  virtual void ProcessRequest(SRequest &request, int useDirectory, SString primaryHost, SString secondaryHost,
                              SString port, SString base);

  // Takes channel entries ("SMTP <user@host>") and what they expand to through the decision of ProcessMail, tells the
  // observer each step, and writes nothing. Sender, submitting host and raw envelope are those of the current control,
  // which may be empty; with them the observer is also told what becomes of the header, and which archive copies there
  // are. 0 when accounts, aliases or settings could not be read.
  int Explain(SStringList const &entries, SRouteObserver &observer);

  // The decision for all recipients and what follows from it; the result is that of ProcessMail.
  unsigned int ProcessAddresses();
  // Writes one "SMTP-Deliver" control for each key of hosts with the key's entries, 20 between two writes of the own
  // control, and releases them. Keys that are done leave the table: after a 0 it holds those that are not. A key with a
  // blank is a source route. Run in line with more than 20 keys, one "SMTP-Router" control takes all of them. With
  // archive set the copies are marked as archive copies (SArchiveMark), the control records them in Archive-Transfer!
  // too, and none are passed on.
  int WriteSMTPDeliver(SNamedStringList *hosts, unsigned int archive);
  // Hands the current control over to the account handler in this process, with accounts as Account-To: and channels
  // as Channel-To:. Both channels and others, the entries of channels that nobody serves, are recorded in Channel-To!,
  // so that the handler does not send them back here. The handler's result.
  int WriteAcctHandler(SStringList const &accounts, SStringList const &channels, SStringList const &others);
  // Files an error record for refused entries, on a copy of the message under its name + "-Unknown", and records them
  // in Channel-To!. 0 when copy or record could not be made; nothing of it is left then.
  int WriteErrorAddrs(SString const &error, SStringList const &addresses);

  // The host of an address in its canonical form; without one DefaultDomain of the environment, else the host name of
  // this machine. resolve: a domain literal becomes the name that the name service has for it.
  SString GetHostAddrPart(S821Address const &address, unsigned int resolve);
  // A host after RewriteDomains and CanonicalizeHostName. A domain literal stays as it is, unless resolve is set and
  // the name service knows its name.
  SString CanonicalizeHost(SString host, unsigned int resolve);
  // Whether mail for the host ends here: one of LocalMailDomains, HostName, "localhost" or "localhost." + DomainName.
  int IsLocalDelivery(SString host);
  // Whether accounts of the host are kept in a directory (LdapAuthDomains).
  int IsLdapAuth(SString host);
  // The addresses in angle brackets in a text, without the brackets; without any, the text itself. HostName stands in
  // for a missing host.
  SStringList GetRFC821Addresses(SString const &text);
  // Addresses, lower-cased, and UIDs that count as routed by what Channel-To! records. Only null and broken addresses
  // there count, so for ordinary mail the list is empty.
  SStringList MatchFieldPreload();

  // Reads the routing table, lines of "pattern:target" under RoutingTable in "/" of the database. Bad lines are passed
  // over. With FastMRT in the environment the table is that compiled file, which a run with "VerifyEnvironment" makes.
  void LoadSMTPRewriteTable(Sdbfile &db);
  // The host that receives mail for a host: the first matching line of the routing table decides. A target that begins
  // with "*" is relative to the host.
  SString RewriteSMTPAddrs(SString host);
  // Completes and corrects the header of mail that enters here from a local account: removes and adds the fields that
  // the section "/Header" names, fills in Date:, Message-ID: and From:, makes the account's SMTP-Address the envelope
  // sender, and gives the poster's address the form of the account's SMTP-RewriteStyle. Mail of others stays as it
  // came. A header that can't be read makes the message an error report, and the result is that of the report. 0:
  // accounts or settings could not be read, or the header not written; the old one stands then, and the caller must
  // stop.
  int RewriteHeader(S821Address const &sender);
  // Fills the table from archive target ("host#port") to channel entries, by the archive rules and the raw envelope of
  // the current control. Nothing for a message that this module has archived before.
  void CreateArchiveToCandidate(SNamedStringList &table);

  // Whether this run is a walk of the queue.
  unsigned int IsQueuePass() const { return _queuePass; }

private:
  // Private to the sources; pass.h has the first two.
  struct Pass;         // what one pass over a message's recipients knows
  struct Entry;        // one recipient on its way through the decision
  struct HeaderRules;  // which fields the site removes and adds
  struct Poster;       // who a header says has sent it
  struct Question;     // how a request wants accounts found
  enum class HeaderStep { kDone, kUnreadable, kNotDone };

  // Settings and the steps in front of routing (smtprouter.cpp).
  bool _LoadConfig(Sdbfile &db);
  bool _LoadErrorActions(Sdbfile &db);
  bool _LoadRewriteDomains(Sdbfile &db);
  unsigned int _FailMail(char const *error, char const *location, SString const &text);
  bool _PrepareSender(unsigned int &result);
  unsigned int _WaitAsItCame();

  // The header (rewrite.cpp).
  HeaderStep _CompleteHeader(S821Address const &sender);
  unsigned int _FailHeader();
  bool _FindSender(S821Address const &sender, SAccount &account);
  void _FillInMissing(SHeader &header, S821Address const &sender);
  void _StylePoster(SHeader &header);
  SString _StyledAddress(Poster const &poster);
  void _ExplainSender(SRouteObserver &observer);

  // The decision (addresses.cpp).
  void _BeginPass(Pass &pass);
  bool _IsFromBypassHost();
  void _TakeEntries(Pass &pass, SStringList const &entries);
  void _NoteListMembers(Pass &pass);
  bool _RouteAll(Pass &pass);
  void _RouteEntry(Pass &pass, SString const &text);
  void _CanonicalizeEntry(Pass const &pass, Entry &entry);
  void _FindAccount(Entry &entry);
  bool _ExpandAlias(Pass &pass, Entry const &entry);
  void _JudgeDomain(Pass &pass, Entry &entry);
  void _RouteToAccount(Pass &pass, Entry const &entry);
  void _RouteToLocalDomain(Pass &pass, Entry &entry);
  void _RouteToPostmaster(Pass &pass, Entry const &entry);
  void _RouteByPercent(Pass &pass, Entry &entry, int percent);
  bool _MayRelay(Pass &pass, S821Address const &target);
  void _RouteToHost(Pass &pass, Entry const &entry);

  // What follows from it (writeout.cpp).
  unsigned int _WriteOut(Pass &pass);
  bool _WriteRemote(Pass &pass);
  bool _WriteRefused(char const *error, SStringList &entries);
  bool _NeedsHandOver(Pass const &pass);
  unsigned int _HandOver(Pass &pass);
  void _TakeBack(Pass const &pass, SStringList const &done);
  void _LetWait(Pass const &pass, SStringList const &done);
  unsigned int _Drop();
  SStringList _EntriesLeft(Pass const &pass);
  void _KeepWhatIsLeft(Pass const &pass);

  // The fan-out (fanout.cpp).
  int _PassFanOutOn(SNamedStringList &hosts);
  bool _CommitBatch(SStringList const &entries, bool archive);

  // Hosts (hosts.cpp), the routing table (routetable.cpp), requests (request.cpp).
  bool _IsLocal(Pass &pass, SString const &host);
  char const *_WhyLocal(Pass const &pass, SString const &host);
  void _NoteHost(Pass const &pass, Entry const &entry, SString const &host);
  SString _RouteHost(Pass const &pass, Entry const &entry, SString const &host);
  bool _FindRoute(SString const &host, SRouteLine &line);
  bool _FindFastRoute(SString const &host, SRouteLine &line);
  bool _AnswerAddress(Question const &question, S821Address &address, SRequest &request);
  SString _RequestedUid(Question const &question, bool directory, S821Address const &address);
  SString _DirectoryUid(Question const &question, S821Address const &address);
  SString _CatchAllUid(S821Address const &address);

  SString _logName;  // the module's name as logs and Archive-Transfer! bear it
  int _maximumHops = 0;
  unsigned int _foreignPercent = 0;
  unsigned int _canonicalize = 0;
  unsigned int _queuePass = 0;
  SString _fastRoutePath;                // FastMRT; empty: none
  std::shared_ptr<Sdbfile> _fastRoutes;  // opened on first use; null when it can't be read
  bool _fastRoutesTried = false;
  bool _fastRoutesWritten = true;              // unless a run that was to make the compiled table could not
  std::shared_ptr<SRouteTable const> _routes;  // null until loaded
  SNamedStringList _rewriteDomains;
  SAccountHandlerModule _handler;  // works in this module's passes
  SSidelineSettings _sideline;
  SSidelineJudge _judge;
  SSidelineAction _sidelineAction;
};
