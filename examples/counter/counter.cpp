// Message-Counter: a module of one page. It counts the messages that are handed to it in counts/<sender> under the
// instance's root, and lets them go on to the module that its setting "Next" names.
#include <brenthaven/brenthaven.h>

class SMessageCounterModule : public SModule {
public:
  SMessageCounterModule() : SModule("Message-Counter") {}

  // 0 refuses to start: without a next module there is nowhere to send the messages.
  unsigned int LoadEnv() override {
    Sdbfile settings(GetModuleName(), 0, kProductWord);
    if (!settings.Open("/Config", 0)) return 0;
    _next = settings.Get("Next").Get(0);
    return _next.Length() > 0;
  }

  // 0 makes the frame keep the message for a later walk of the queue.
  unsigned int ProcessMail() override {
    SControl &control = GetControl();
    if (!_Count(S821Address(control.Get(kKeyUserFrom).Get(0)))) return 0;
    control[kKeyFunction] = _next;
    return HandOver(control);
  }

private:
  unsigned int _Count(S821Address const &sender) {
    SString const name = sender.IsValid() ? LowerCase(sender.LocalPart() + "@" + sender.Domain()) : SString("nobody");
    if (name.Index('/') >= 0 || name.HasPrefix(".")) return 1;  // no name for a file: not counted
    if (!MakeDir(GetBrenthaven() + "counts", 0770)) return 0;
    SPickleFile count(GetBrenthaven() + "counts/" + name);  // locked from Read to Write
    if (!count.Read()) return 0;
    int const messages = count.GetInt() + 1;
    count.Clear();
    count.PutInt(messages);
    return count.Write();
  }

  SString _next;
};

int main(int argc, char **argv) { return RunModule<SMessageCounterModule>(argc, argv); }
