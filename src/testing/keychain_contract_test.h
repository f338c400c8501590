#pragma once

#include <gmock/gmock.h>

#include "platform/keychain.h"

namespace vondle {

// What every keychain does. T has keychain(), which starts without items of the services below.
template <class T>
class KeychainContract : public testing::Test {
 protected:
  static Keychain::Item item(std::string account, std::string data) {
    return {.service = "com.example.key",
            .accessGroup = "group.com.example",
            .account = std::move(account),
            .label = "Example key",
            .data = std::move(data)};
  }
  Keychain::Found find() { return keychain().copyMatching("com.example.key", "group.com.example"); }
  KeychainStatus remove() { return keychain().remove("com.example.key", "group.com.example"); }
  Keychain& keychain() { return made_.keychain(); }

 private:
  T made_;
};
TYPED_TEST_SUITE_P(KeychainContract);

TYPED_TEST_P(KeychainContract, FindsNothingWhereNothingIs) {
  EXPECT_EQ(this->find().status, KEYCHAIN_ITEM_NOT_FOUND);
  EXPECT_EQ(this->remove(), KEYCHAIN_ITEM_NOT_FOUND);
}

TYPED_TEST_P(KeychainContract, GivesBackWhatWasAdded) {
  ASSERT_EQ(this->keychain().add(this->item("ann", "s3cret")), KEYCHAIN_SUCCESS);
  const auto found = this->find();
  EXPECT_EQ(found.status, KEYCHAIN_SUCCESS);
  EXPECT_EQ(found.data, "s3cret");
}

TYPED_TEST_P(KeychainContract, MatchesServiceAndGroup) {
  ASSERT_EQ(this->keychain().add(this->item("ann", "s3cret")), KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->keychain().copyMatching("com.example.other", "group.com.example").status, KEYCHAIN_ITEM_NOT_FOUND);
  EXPECT_EQ(this->keychain().copyMatching("com.example.key", "group.com.other").status, KEYCHAIN_ITEM_NOT_FOUND);
}

TYPED_TEST_P(KeychainContract, ReplacesAnItemOfTheSameAccount) {
  ASSERT_EQ(this->keychain().add(this->item("ann", "old")), KEYCHAIN_SUCCESS);
  ASSERT_EQ(this->keychain().add(this->item("ann", "new")), KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->find().data, "new");
}

TYPED_TEST_P(KeychainContract, RemovesEveryAccountAtOnce) {
  ASSERT_EQ(this->keychain().add(this->item("ann", "a")), KEYCHAIN_SUCCESS);
  ASSERT_EQ(this->keychain().add(this->item("bob", "b")), KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->remove(), KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->find().status, KEYCHAIN_ITEM_NOT_FOUND);
}

TYPED_TEST_P(KeychainContract, KeepsAnEmptySecretApartFromNone) {
  ASSERT_EQ(this->keychain().add(this->item("ann", "")), KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->find().status, KEYCHAIN_SUCCESS);
  EXPECT_EQ(this->find().data, "");
}

TYPED_TEST_P(KeychainContract, HasTextsForItsStatusesOnly) {
  for (const auto status :
       {KEYCHAIN_SUCCESS, KEYCHAIN_NOT_AVAILABLE, KEYCHAIN_ITEM_NOT_FOUND, KEYCHAIN_INTERNAL_ERROR}) {
    EXPECT_THAT(this->keychain().message(status).value(), testing::Not(testing::IsEmpty()));
  }
  EXPECT_EQ(this->keychain().message(-1), std::nullopt);
}

REGISTER_TYPED_TEST_SUITE_P(KeychainContract, FindsNothingWhereNothingIs, GivesBackWhatWasAdded, MatchesServiceAndGroup,
                            ReplacesAnItemOfTheSameAccount, RemovesEveryAccountAtOnce, KeepsAnEmptySecretApartFromNone,
                            HasTextsForItsStatusesOnly);

}  // namespace vondle
