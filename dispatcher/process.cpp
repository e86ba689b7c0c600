#include "dispatcher/process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>

namespace {

constexpr size_t kMaxAnswer = 64;  // a longer line is no code

void CloseIfOpen(int &fd) {
  if (fd >= 0) (void)close(fd);  // a pipe end: nothing to lose
  fd = -1;
}

// The child gets the default signal state whatever this process blocks or ignores.
int SetSignals(posix_spawnattr_t &attributes) {
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  int error = posix_spawnattr_setsigmask(&attributes, &none);
  if (error == 0) error = posix_spawnattr_setsigdefault(&attributes, &all);
  if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  return error;
}

std::vector<char *> Pointers(std::vector<std::string> &words) {
  std::vector<char *> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string &word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

int Spawn(pid_t &pid, std::vector<std::string> &arguments, std::vector<std::string> &environment, int input,
          int output) {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  int error = posix_spawnattr_init(&attributes);
  if (error != 0) return error;
  error = posix_spawn_file_actions_init(&actions);
  if (error != 0) {
    posix_spawnattr_destroy(&attributes);
    return error;
  }
  error = SetSignals(attributes);
  if (error == 0)
    error = input >= 0 ? posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO)
                       : posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (error == 0 && output >= 0) error = posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  std::vector<char *> argv = Pointers(arguments);
  std::vector<char *> envp = Pointers(environment);
  if (error == 0) error = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error;
}

}  // namespace

std::unique_ptr<ModuleProcess> ModuleProcess::Start(ProcessKind kind, std::string const &path,
                                                    std::string const &function, std::string const &message,
                                                    std::vector<std::string> environment) {
  std::unique_ptr<ModuleProcess> process(new ModuleProcess);
  process->kind = kind;
  process->function = function;
  process->since = Clock::now();
  environment.push_back("ModuleName=" + function);

  std::vector<std::string> arguments = {path};
  int childInput = -1, childOutput = -1;
  switch (kind) {
    case ProcessKind::kOneShot:
      environment.push_back("MessageFile=" + message);
      arguments.insert(arguments.end(), {"MessageFile", message});
      break;
    case ProcessKind::kWalk:
      arguments.emplace_back("ProcessQueue");
      break;
    case ProcessKind::kServe: {
      arguments.emplace_back("Serve");
      int in[2], out[2];
      if (pipe2(in, O_CLOEXEC) != 0) return nullptr;
      childInput = in[0], process->_input = in[1];
      if (pipe2(out, O_CLOEXEC) != 0) {
        CloseIfOpen(childInput);
        return nullptr;
      }
      process->_output = out[0], childOutput = out[1];
      if (fcntl(process->_output, F_SETFL, O_NONBLOCK) != 0) {
        CloseIfOpen(childInput), CloseIfOpen(childOutput);
        return nullptr;
      }
    }
  }
  int const error = Spawn(process->pid, arguments, environment, childInput, childOutput);
  CloseIfOpen(childInput);
  CloseIfOpen(childOutput);
  if (error == 0) return process;
  errno = error;
  return nullptr;
}

ModuleProcess::~ModuleProcess() {
  CloseIfOpen(_input);
  CloseIfOpen(_output);
}

bool ModuleProcess::Give(Job &next) {
  std::string const line = next.name + "\n";  // below PIPE_BUF, so it goes whole or not at all
  ssize_t written;
  do written = write(_input, line.data(), line.size());
  while (written < 0 && errno == EINTR);
  if (written != static_cast<ssize_t>(line.size())) return false;
  job = &next;
  since = Clock::now();
  return true;
}

bool ModuleProcess::ReadAnswer(int &code) {
  char buffer[kMaxAnswer];
  ssize_t length;
  do length = read(_output, buffer, sizeof buffer);
  while (length < 0 && errno == EINTR);
  if (length <= 0) {
    if (length == 0) CloseIfOpen(_output);  // it is ending; its exit tells the rest
    return false;
  }
  _answer.append(buffer, static_cast<size_t>(length));
  for (size_t end; (end = _answer.find('\n')) != std::string::npos;) {
    auto const [stop, error] = std::from_chars(_answer.data(), _answer.data() + end, code);
    bool const good = error == std::errc() && stop == _answer.data() + end;
    _answer.erase(0, end + 1);
    if (!good) continue;  // the module prints something else on its standard output
    ++served;
    return true;
  }
  if (_answer.size() > kMaxAnswer) _answer.clear();
  return false;
}

void ModuleProcess::Retire() { CloseIfOpen(_input); }
