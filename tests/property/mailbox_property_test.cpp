// Mailbox paths and quotas, for any name and any size.
#include "brenthaven/accounts/safeuid.h"
#include "tests/mailbox/mail_fixture.h"
#include "tests/property/property.h"

namespace {

class MailboxProperty : public MailTest {};

TEST_F(MailboxProperty, NoNameThatIsLetThroughLeavesItsBucket) {
  ForEachCase([&](SChoices &choices) {
    std::string const uid = choices.Word(choices.OneIn(20) ? 300 : 6, choices.OneIn(3) ? "" : "./\\a ~");
    if (!IsSafeUID(Bytes(uid))) return;
    std::filesystem::path const path = Path("mailboxes/" + Text(GetMailboxSubpath(Bytes(uid))));
    std::filesystem::path const bucket = path.lexically_normal().parent_path();
    ASSERT_EQ(bucket.parent_path(), Path("mailboxes")) << testing::PrintToString(uid);
    ASSERT_EQ(bucket / uid, path) << testing::PrintToString(uid);
  });
}

// The same at the door: nobody's mail and nothing beside the mailboxes goes with a mailbox, whatever it is called.
TEST_F(MailboxProperty, DeletionOfAnyNameTakesNobodyElsesMail) {
  AddAccount("ann");
  PutDelivery("first", {"ann"});
  Deliver("first");
  PutFile("victim/1", "mail");
  ForEachCase(
      [&](SChoices &choices) {
        std::string uid;
        for (int i = choices.Below(6); i > 0; --i) {
          static constexpr char const *kParts[] = {"..", "/", ".", "\\", "victim", "in", "a", "%2e"};
          uid += choices.Of(kParts);
        }
        PutFile("control/q-Control",
                "Function: Mailbox-Deliver\r\nControl-Type: Request\r\nRequest-Type: DeleteAccount\r\n"
                "Account-To: " +
                    uid + "\r\n");
        Deliver("q");
        ASSERT_EQ(Stored("ann"), Texts{Plain()}) << uid;
        ASSERT_EQ(FileBytes("victim/1"), "mail") << uid;
        std::filesystem::remove(Path("control/q-Control"));
      },
      10);
}

TEST_F(MailboxProperty, AMessageIsRefusedExactlyWhenItPassesTheQuota) {
  constexpr int kMost = 3;  // kilobytes
  for (int quota = 0; quota <= kMost; ++quota)
    AddAccount("q" + std::to_string(quota), {{"Mailbox-Quota", {std::to_string(quota)}}});
  ForEachCase(
      [&](SChoices &choices) {
        int const quota = choices.Below(kMost + 1);
        std::string const uid = "q" + std::to_string(quota);
        int const size = static_cast<int>(Plain("").size()) + choices.Below(400);
        // Often the message fits to the byte, or lacks one.
        int const room = choices.OneIn(2) ? size + choices.Below(3) - 1 : choices.Below(1000);
        int const stored = std::max(0, std::max(quota, 1) * 1024 - room);
        std::filesystem::remove_all(Path("control"));
        std::filesystem::create_directory(Path("control"));
        std::filesystem::remove_all(Path(Folder(uid)));
        PutFile(Folder(uid) + "__size__", std::to_string(stored));
        PutDelivery("m", {uid}, std::string(static_cast<size_t>(size) - Plain("").size(), 'x'));
        Deliver("m");
        bool const fits = quota == 0 || stored + size <= quota * 1024;
        ASSERT_EQ(Stored(uid).size(), fits ? 1u : 0u) << quota << ' ' << stored << ' ' << size;
        ASSERT_EQ(Size(uid), std::to_string(fits ? stored + size : stored));
        ASSERT_EQ(Reports().size(), fits ? 0u : 1u);
      },
      10);
}

}  // namespace
