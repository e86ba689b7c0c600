// A module for the dispatcher's tests. It writes a line "WORD name" to root/runs for each message, removes the control
// file, and does what the message name begins with. Copied as "Plain-Module" it does not know the word "Serve".
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <string>

namespace {

std::string const root = getenv("Brenthaven") != nullptr ? getenv("Brenthaven") : ".";

void Record(std::string const &line) {
  int const fd = open((root + "/runs").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0660);
  std::string const text = line + "\n";
  if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
  close(fd);
}

bool Begins(std::string const &name, char const *with) { return name.rfind(with, 0) == 0; }

int Process(std::string const &name) {
  Record("run " + name);
  if (Begins(name, "crash")) abort();
  if (Begins(name, "unreadable")) return 105;
  if (Begins(name, "keep")) return 0;
  if (Begins(name, "hold"))
    while (access((root + "/go").c_str(), F_OK) != 0) usleep(2000);  // until the test says so
  unlink((root + "/control/" + name + "-Control").c_str());
  Record("end " + name);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::string const self = argv[0];
  bool const plain = self.find("Plain-Module") != std::string::npos;
  if (argc == 2 && strcmp(argv[1], "ProcessQueue") == 0) {
    Record("walk");
    return 0;
  }
  if (argc == 2 && strcmp(argv[1], "Serve") == 0 && !plain) {
    for (std::string name; std::getline(std::cin, name);)
      std::cout << (Begins(name, "chatter") ? "Looking at it\n" : "") << Process(name) << std::endl;
    return 0;
  }
  if (argc != 3 || strcmp(argv[1], "MessageFile") != 0) return 105;
  char const *const named = getenv("MessageFile");
  if (named == nullptr || strcmp(named, argv[2]) != 0) return 3;
  return Process(argv[2]);
}
