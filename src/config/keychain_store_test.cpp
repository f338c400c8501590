#include "config/keychain_store.h"

#include <gmock/gmock.h>

#include "testing/simulated_keychain.h"

namespace vondle {
namespace {

struct KeychainStoreTest : testing::Test {
  void put(std::string data) {
    keychain.add({.service = "com.ferrow.vondle.api-key",
                  .accessGroup = "group.com.ferrow.vondle",
                  .account = "ann",
                  .label = "",
                  .data = std::move(data)});
  }

  SimulatedKeychain keychain;
  KeychainStore store{keychain};
};

TEST_F(KeychainStoreTest, ReadsTheKeyOfItsServiceAndGroup) {
  EXPECT_EQ(store.readKey(), std::nullopt);
  put("kéy");
  EXPECT_EQ(store.readKey(), "kéy");
}

TEST_F(KeychainStoreTest, ReadsNoKeyThatIsEmptyOrNoText) {
  for (const auto* data : {"", "\xFF\xFE", "k\xC3"}) {
    put(data);
    EXPECT_EQ(store.readKey(), std::nullopt);
  }
}

TEST_F(KeychainStoreTest, ReadsNoKeyFromAKeychainThatFails) {
  put("key");
  keychain.setAvailable(false);
  EXPECT_EQ(store.readKey(), std::nullopt);
}

TEST_F(KeychainStoreTest, SavingReplacesTheItemOfAnyAccount) {
  EXPECT_EQ(store.saveKey("old", "ann"), 0);
  EXPECT_EQ(store.saveKey("new", "bob"), 0);
  ASSERT_EQ(keychain.items().size(), 1U);
  const auto item = keychain.items().front();
  EXPECT_EQ(item.service, "com.ferrow.vondle.api-key");
  EXPECT_EQ(item.accessGroup, "group.com.ferrow.vondle");
  EXPECT_EQ(item.account, "bob");
  EXPECT_EQ(item.label, "Vondle account key");
  EXPECT_EQ(item.data, "new");
}

TEST_F(KeychainStoreTest, SavingReportsTheKeychainsStatus) {
  keychain.setAvailable(false);
  EXPECT_EQ(store.saveKey("key", "ann"), KEYCHAIN_NOT_AVAILABLE);
}

TEST_F(KeychainStoreTest, DeletesTheItem) {
  store.saveKey("key", "ann");
  store.deleteKey();
  EXPECT_THAT(keychain.items(), testing::IsEmpty());
  store.deleteKey();
}

TEST_F(KeychainStoreTest, DescribesAStatusByItsTextOrItsNumber) {
  EXPECT_EQ(store.describe(KEYCHAIN_ITEM_NOT_FOUND), *keychain.message(KEYCHAIN_ITEM_NOT_FOUND));
  EXPECT_EQ(store.describe(-4), "OSStatus -4");
}

}  // namespace
}  // namespace vondle
