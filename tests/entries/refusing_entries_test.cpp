// The five entries that do nothing but refuse. Their small differences are kept on purpose.
#include <string>

#include "kit/dialogs.h"
#include "kit/provider.h"

namespace {

using kit::Frame;
using kit::kBanner;
using kit::kClosingBanner;

class RefusingEntriesTest : public kit::ProviderTest {
 protected:
  // Opens a provider, makes the call, and tells whether the next open still knows the first one's reader.
  template <typename Call>
  bool KeepsProviderCache(Call call) {
    AddReader("Reader 0");
    AddReader("Reader 1");
    const NCRYPT_PROV_HANDLE first = OpenProvider();
    call();
    Forget();
    kit::DialogRobot robot;
    NCRYPT_PROV_HANDLE second = 0;
    ksp().OpenProvider(&second, kit::kProviderName, 0);
    robot.Finish();
    bool kept = false;
    for (const kit::Line& line : kit::Log::Get().Take())
      kept = kept || line.text == "Provider set";
    if (second) ksp().FreeProvider(second);
    ksp().FreeProvider(first);
    return kept;
  }
};

TEST_F(RefusingEntriesTest, DeriveKey) {
  EXPECT_EQ(ksp().DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0), NTE_NOT_SUPPORTED);
  ExpectLines(Frame("KELDAKSPDeriveKey",
                    {"NTE_NOT_SUPPORTED: This version of KELDA KSP does not support key derivation."},
                    NTE_NOT_SUPPORTED));
}

TEST_F(RefusingEntriesTest, FreeSecret) {
  EXPECT_EQ(ksp().FreeSecret(1, 1), NTE_NOT_SUPPORTED);
  ExpectLines(Frame("KELDAKSPFreeSecret", {"NTE_NOT_SUPPORTED: FreeSecret is not supported."}, NTE_NOT_SUPPORTED));
}

TEST_F(RefusingEntriesTest, NotifyChangeKey) {
  HANDLE event = nullptr;
  EXPECT_EQ(ksp().NotifyChangeKey(0, &event, 0xFFFFFFFF), NTE_NOT_SUPPORTED);
  ExpectLines(
      Frame("KELDAKSPNotifyChangeKey", {"NTE_NOT_SUPPORTED: NotifyChangeKey is not supported"}, NTE_NOT_SUPPORTED));
}

TEST_F(RefusingEntriesTest, PromptUserLogsItsBareNameAndNoStatus) {
  EXPECT_EQ(ksp().PromptUser(0, 0, nullptr, 0), NTE_NOT_SUPPORTED);
  ExpectLines({kBanner, "KELDAKSPPromptUser", "NTE_NOT_SUPPORTED: PromptUser is not supported", "KELDAKSPPromptUser",
               kClosingBanner});
}

TEST_F(RefusingEntriesTest, SecretAgreementLogsNoStatus) {
  NCRYPT_SECRET_HANDLE secret = 0;
  EXPECT_EQ(ksp().SecretAgreement(0, 0, 0, &secret, 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(secret, 0u);
  ExpectLines({kBanner, "KELDAKSPSecretAgreement - Entry", "NTE_NOT_SUPPORTED: SecretAgreement is not supported",
               "KELDAKSPSecretAgreement - Exit", kClosingBanner});
}

TEST_F(RefusingEntriesTest, RefuseWithValidHandlesToo) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  NCRYPT_SECRET_HANDLE secret = 0xEEEE;
  HANDLE event = &secret;
  DWORD length = 0xEEEEEEEE;
  BYTE derived[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(ksp().DeriveKey(provider, 1, L"HASH", nullptr, derived, 4, &length, 0), NTE_NOT_SUPPORTED);
  ExpectLines(Frame("KELDAKSPDeriveKey",
                    {"NTE_NOT_SUPPORTED: This version of KELDA KSP does not support key derivation."},
                    NTE_NOT_SUPPORTED));
  EXPECT_EQ(ksp().FreeSecret(provider, 1), NTE_NOT_SUPPORTED);
  EXPECT_EQ(ksp().NotifyChangeKey(provider, &event, 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(ksp().PromptUser(provider, 1, L"op", 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(ksp().SecretAgreement(provider, 1, 1, &secret, 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(secret, 0xEEEEu) << "nothing is handed out";
  EXPECT_EQ(event, &secret);
  EXPECT_EQ(length, 0xEEEEEEEE);
  EXPECT_EQ(derived[0], 0xEE);
  ExpectCalls({});
  EXPECT_TRUE(kit::Registry::Get().TakeReads().empty());
  ksp().FreeProvider(provider);
}

TEST_F(RefusingEntriesTest, DeriveKeyClearsTheProviderCache) {
  EXPECT_FALSE(KeepsProviderCache([&] { ksp().DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0); }));
}

TEST_F(RefusingEntriesTest, FreeSecretLeavesTheProviderCache) {
  EXPECT_TRUE(KeepsProviderCache([&] { ksp().FreeSecret(0, 0); }));
}

TEST_F(RefusingEntriesTest, NotifyChangeKeyClearsTheProviderCache) {
  EXPECT_FALSE(KeepsProviderCache([&] { ksp().NotifyChangeKey(0, nullptr, 0); }));
}

TEST_F(RefusingEntriesTest, PromptUserLeavesTheProviderCache) {
  EXPECT_TRUE(KeepsProviderCache([&] { ksp().PromptUser(0, 0, nullptr, 0); }));
}

TEST_F(RefusingEntriesTest, SecretAgreementClearsTheProviderCache) {
  EXPECT_FALSE(KeepsProviderCache([&] { ksp().SecretAgreement(0, 0, 0, nullptr, 0); }));
}

}  // namespace
