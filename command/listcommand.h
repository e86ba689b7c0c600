// command/listcommand.h - what the subcommands of `brenthaven list` share.
#pragma once
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "brenthaven/lists/slist.h"
#include "brenthaven/spool/module.h"
#include "command/command.h"

struct ListOptions {
  std::string name;
  std::string domain;
  std::string info;
  std::string file;
  std::string attribute;
  std::string id;
  std::string reset;
  std::vector<std::string> owners;
  std::vector<std::string> words;  // values, addresses, or what waits
  bool json = false;
  bool digest = false;
  bool notify = false;
  bool clear = false;
};

// The frame of a module for the mail that the command sends.
class ListCommandModule : public SModule {
public:
  ListCommandModule() : SModule("List-Command") {}
  unsigned int ProcessMail() override { return 1; }
};

// Takes over the instance and finds the list, by UID or name. False after a Fail.
bool EnterList(Command &command, std::string const &name, SList &list);

// A Fail for an SListResult other than success, about an address or an id: its exit code and what it means.
void FailResult(Command &command, int result, std::string const &about);

using ListJson = nlohmann::ordered_json;
void PrintJson(ListJson const &json);

// listsettings.cpp: lists as such, and how they are set up.
void CreateList(Command &command, ListOptions const &options);
void ShowLists(Command &command, ListOptions const &options);
void SetListAttribute(Command &command, ListOptions const &options);
void DeleteList(Command &command, ListOptions const &options);

// listmembers.cpp: who is on them.
void PrintMembers(Command &command, ListOptions const &options);
void SubscribeMembers(Command &command, ListOptions const &options);
void UnsubscribeMembers(Command &command, ListOptions const &options);

// listqueue.cpp: what waits for the owners, and what the list remembers.
void PrintHeld(Command &command, ListOptions const &options);
void ApproveHeld(Command &command, ListOptions const &options);
void RejectHeld(Command &command, ListOptions const &options);
void EditHeld(Command &command, ListOptions const &options);
void PrintStats(Command &command, ListOptions const &options);
void PrintBounces(Command &command, ListOptions const &options);
