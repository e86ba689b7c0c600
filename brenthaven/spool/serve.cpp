#include "brenthaven/spool/serve.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "brenthaven/platform/sys.h"
#include "brenthaven/text/base.h"

namespace {

constexpr std::string_view kServeWord = "Serve";
constexpr size_t kBlockBytes = 64 << 10;

bool IsMessageName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxMessageName &&
         std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

int ServeMessage(char const *const *argv, SModuleFactory const &make, std::string_view name) {
  return IsMessageName(name) ? make()->MainForMessage(argv, SString(name)) : kModuleUnreadable;
}

// The lines of a stream, however its bytes arrive. Of a line that is longer than any name only the front is kept, so
// that a stream without a line end takes no memory.
class LineReader {
public:
  explicit LineReader(int fd) : _fd(fd) {}

  // The next whole line. False at the end of the stream, where a line without its end was never meant to be obeyed,
  // and on an error.
  bool Next(std::string &line) {
    line.clear();
    for (;;) {
      std::string_view const rest = std::string_view(_block).substr(_position);
      size_t const end = rest.find('\n');
      line.append(rest.substr(0, end), 0, kMaxMessageName + 1 - line.size());
      if (end != std::string_view::npos) {
        _position += end + 1;
        return true;
      }
      if (!_ReadBlock()) return false;
    }
  }
  bool Failed() const { return _failed; }

private:
  bool _ReadBlock() {
    _position = 0;
    _block.resize(kBlockBytes);
    ssize_t const got = sys::Read(_fd, _block.data(), _block.size());
    _failed = got < 0;
    _block.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return got > 0;
  }

  int _fd;
  std::string _block;
  size_t _position = 0;
  bool _failed = false;
};

}  // namespace

int RunModule(char const *const *argv, SModuleFactory const &make) {
  for (char const *const *word = argv; *word != nullptr; ++word)
    if (*word == kServeWord) {
      (void)signal(SIGPIPE, SIG_IGN);  // a dispatcher that went away is the end of the work, not a crash
      return ServeMessages(STDIN_FILENO, STDOUT_FILENO, argv, make);
    }
  return make()->Main(argv);
}

int ServeMessages(int input, int output, char const *const *argv, SModuleFactory const &make) {
  LineReader lines(input);
  std::string name;
  while (lines.Next(name)) {
    SString const answer = SString(ServeMessage(argv, make, name)) + "\n";
    if (sys::WriteAll(output, static_cast<char const *>(answer), static_cast<size_t>(answer.Length())) != 0) return 1;
  }
  return lines.Failed();
}
