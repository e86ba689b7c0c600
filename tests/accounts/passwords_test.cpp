// Hashes, covers, the block cipher and the auxiliary store.
#include "brenthaven/accounts/passwords.h"

#include "brenthaven/accounts/auxpassword.h"
#include "brenthaven/accounts/rijndael.h"
#include "brenthaven/accounts/sitekeys.h"
#include "brenthaven/store/sdbfile.h"
#include "tests/accounts/support.h"

namespace {

class PasswordsTest : public AccountFixture {
protected:
  static Sdbfile Store() { return Sdbfile("AuxPassword", 1, kProductWord); }
};

TEST_F(PasswordsTest, DigestsOfRfc1321) {
  EXPECT_EQ(Text(MD5("")), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Text(MD5("message digest")), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_NE(Text(MD5(SString("a\0b", 3))), Text(MD5("a"))) << "NUL is a byte like others";
}

TEST_F(PasswordsTest, HashMatchesItsPasswordOnly) {
  SString const stored = StringCopy("s3cret");
  EXPECT_EQ(stored.Length(), 64);
  EXPECT_NE(Text(stored), Text(StringCopy("s3cret"))) << "salted";
  EXPECT_EQ(StringComp("s3cret", stored), 1);
  for (char const *wrong : {"", "s3cre", "s3cret ", "S3cret"}) EXPECT_EQ(StringComp(wrong, stored), 0) << wrong;
  EXPECT_EQ(StringComp("s3cret", stored.Segment(0, 63)), 0);
  EXPECT_EQ(StringComp("s3cret", stored + "0"), 0);
  EXPECT_EQ(StringComp("", ""), 0);
}

TEST_F(PasswordsTest, CoverComesOff) {
  for (char const *text : {"", "letmein", "Abc", "0", " x", "~", "_", "{}", "J\xc3\xbcrgen"}) {
    EXPECT_EQ(Text(Scramble(Scramble(text, 0), 1)), text);
    EXPECT_EQ(Scramble(text, 0).Index('\0'), -1) << text << ": a NUL could not be stored";
  }
  EXPECT_NE(Text(Scramble("letmein", 0)), "letmein");
  SString const combinesToControl = SString(static_cast<char>(sitekeys::kScramble ^ 0x1f), 1) + "Z";
  EXPECT_EQ(Text(Scramble(combinesToControl, 1)), Text(combinesToControl)) << "plain already";
}

// The example of FIPS-197, appendix C.1, twice: blocks are independent.
TEST_F(PasswordsTest, CipherIsRijndaelBlockByBlock) {
  SRijndaelKey key;
  std::array<std::uint8_t, 32> bytes;
  for (std::size_t i = 0; i < 16; ++i) {
    key[i] = static_cast<std::uint8_t>(i);
    bytes[i] = bytes[i + 16] = static_cast<std::uint8_t>(i * 0x11);
  }
  constexpr std::array<std::uint8_t, 16> kWant = {0x69, 0xc4, 0xe0, 0xd8, 0x6a, 0x7b, 0x04, 0x30,
                                                  0xd8, 0xcd, 0xb7, 0x80, 0x70, 0xb4, 0xc5, 0x5a};
  auto const plain = bytes;
  ASSERT_TRUE(RijndaelEncipher(key, bytes.data(), bytes.size()));
  EXPECT_TRUE(std::equal(kWant.begin(), kWant.end(), bytes.begin()));
  EXPECT_TRUE(std::equal(kWant.begin(), kWant.end(), bytes.begin() + 16));
  ASSERT_TRUE(RijndaelDecipher(key, bytes.data(), bytes.size()));
  EXPECT_EQ(bytes, plain);
  EXPECT_FALSE(RijndaelEncipher(key, bytes.data(), 15)) << "no whole block";
}

TEST_F(PasswordsTest, AuxiliaryPasswordReadsBack) {
  SAuxPassword passwords;
  for (int length : {1, 15, 16, 17, 32, 200}) {
    SString const password('p', length);
    EXPECT_EQ(passwords.SetPassword("ann", password), 1u);
    EXPECT_EQ(Text(passwords.GetPassword("ann")), Text(password));
    int const blocks = (length + 15) / 16;
    EXPECT_EQ(Store().Get("ann").Get(0).Length(), 2 * (2 + 16 * blocks)) << "an exact multiple has no block more";
  }
  EXPECT_EQ(passwords.SetPassword("bob", SString("one\0two", 7)), 1u);
  EXPECT_EQ(Text(passwords.GetPassword("bob")), "one");
  EXPECT_EQ(passwords.SetPassword("", "x"), 0u);
  EXPECT_EQ(passwords.SetPassword("ann", ""), 0u);
  EXPECT_FALSE(passwords.GetPassword("").Defined());
  EXPECT_EQ(passwords.DeletePassword("ann"), 1u);
  EXPECT_EQ(passwords.DeletePassword("ann"), 0u);
  EXPECT_FALSE(passwords.GetPassword("ann").Defined());
}

TEST_F(PasswordsTest, BrokenAuxiliaryValueIsNoPassword) {
  Sdbfile store = Store();
  SAuxPassword passwords;
  for (char const *value : {"", "12", "1234", "xyz", "123400000000000000000000000000000000000", "12345678"}) {
    store.Set("ann", value);
    EXPECT_FALSE(passwords.GetPassword("ann").Defined()) << value;
  }
}

TEST_F(PasswordsTest, HandlesShareTheStoreAndOutliveEachOther) {
  SAuxPassword first;
  EXPECT_EQ(SAuxPassword().SetPassword("ann", "secret"), 1u);
  EXPECT_EQ(Text(first.GetPassword("ann")), "secret") << "opened again after another handle's end";
}

TEST_F(PasswordsTest, OtherModesHaveAStoreOfTheirOwn) {
  EXPECT_EQ(SAuxPassword().SetPassword("ann", "secret"), 1u);
  EXPECT_FALSE(SAuxPassword(1).GetPassword("ann").Defined());
  EXPECT_EQ(SAuxPassword(1).SetPassword("ann", "other"), 1u);
  EXPECT_EQ(Text(SAuxPassword().GetPassword("ann")), "secret");
}

TEST_F(PasswordsTest, ProcessEndsWithoutTheStore) {
  PutFile("config/registry.sqlite", std::string(8192, 'x'));
  EXPECT_EXIT(SAuxPassword(), ::testing::ExitedWithCode(1), "fatal: cannot open AuxPassword");
}

}  // namespace
