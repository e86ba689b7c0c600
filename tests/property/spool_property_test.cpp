// What a module does to a control on the way leaves the message's own fields alone.
#include "brenthaven/spool/control.h"
#include "brenthaven/spool/keys.h"
#include "tests/property/property.h"
#include "tests/spool/spooltest.h"
#include "tests/support/texts.h"

namespace {

class SpoolProperty : public ScratchSpool {
protected:
  using Fields = std::vector<std::pair<std::string, Texts>>;
  static Fields FieldsOf(SControl const &control) {
    Fields fields;
    for (SString const &key : control.Keys())
      if (!(key == kKeyTrace)) fields.emplace_back(Text(key), List(control.Get(key)));
    return fields;
  }
  Texts FilesBelow(std::string const &directory) const {
    Texts files;
    for (auto const &entry : std::filesystem::recursive_directory_iterator(Path(directory)))
      if (entry.is_regular_file()) files.push_back(entry.path().lexically_relative(root));
    return files;
  }
};

TEST_F(SpoolProperty, TraceAndDeferralChangeNoOtherField) {
  static constexpr char const *kKeys[] = {kKeyUserFrom, kKeyChannelTo, kKeyChannelToDone, kKeyHostTo,
                                          kKeyTrace,    kKeyError,     "X-Unknown:"};
  ForEachCase([&](SChoices &choices) {
    ProbeModule module;
    SControl control;
    control.SetModule(&module);
    control.PutFilename("m");
    control[kKeyFunction] = "Probe";
    for (int i = choices.Below(8); i > 0; --i)
      control[choices.Of(kKeys)].Push(Bytes(choices.Word(40, std::string_view("ab./\\,<@>: \t\r\n\0\xff", 17))));
    Fields const before = FieldsOf(control);
    int const traces = control.Get(kKeyTrace).Length();
    ASSERT_TRUE(control.Write());
    ASSERT_EQ(FieldsOf(control), before);
    ASSERT_EQ(control.Get(kKeyTrace).Length(), traces + 1);
    std::string const written = FileBytes("control/m-Control");

    bool const isDeferred = choices.OneIn(2) ? control.Defer() : control.Defer(choices.Below(9));
    ASSERT_TRUE(isDeferred) << testing::PrintToString(before);
    ASSERT_EQ(FieldsOf(control), before);
    Texts const files = FilesBelow("deferred");
    ASSERT_EQ(files.size(), 1u);
    ASSERT_TRUE(files[0].starts_with("deferred/Probe/")) << files[0];
    ASSERT_EQ(FileBytes(files[0]), written);
    ASSERT_FALSE(Exists("control/m-Control"));

    SControl back;
    ASSERT_TRUE(back.Read(Bytes(Path(files[0]))));
    ASSERT_EQ(Text(back.Text()), written);
    std::filesystem::remove_all(Path("deferred/Probe"));
  });
}

}  // namespace
