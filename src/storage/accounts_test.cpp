#include "storage/accounts.h"

#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

constexpr const char* KEY = "0123456789abcdef";

TEST(AccountsTest, TheKeyIsTheFirstLineWithoutBlanks) {
  const TemporaryFolder folder;
  for (const char* text : {"0123456789abcdef", "0123456789abcdef\n", " 0123456789abcdef \r\nmore\n"})
    EXPECT_EQ(readKeyFile(folder.write("key", text)), KEY);
}

TEST(AccountsTest, AKeyFileThatIsNotSafeOrNotAKeyIsRefused) {
  const TemporaryFolder folder;
  EXPECT_FALSE(readKeyFile(folder.path() + "/missing"));
  EXPECT_FALSE(readKeyFile(folder.path()));
  for (const unsigned mode : {0640U, 0604U, 0620U, 0666U}) {
    const auto key = readKeyFile(folder.write("open", KEY, mode));
    ASSERT_FALSE(key) << mode;
    EXPECT_NE(key.error().description.find("chmod 600"), std::string::npos);
  }
  for (const std::string& text : {std::string(), std::string("0123456789abcde"), std::string(1025, 'x'),
                                  std::string("0123456789 abcdef"), std::string("0123456789abcdef\xc3\xbc")}) {
    const auto key = readKeyFile(folder.write("key", text));
    EXPECT_FALSE(key) << text;
  }
  EXPECT_TRUE(readKeyFile(folder.write("key", std::string(1024, 'x'))));
}

TEST(AccountsTest, AnAccountGetsANewKeyAndKeepsItsFiles) {
  StorageRig rig;
  ASSERT_EQ(rig.makeFolder("kept").status, 200);
  auto store = rig.stores().writer();
  const auto before = setAccount(*store, "ann", rig.keyOf("ann"), 0);
  const auto after = setAccount(*store, "ann", "another key of ann", 0);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->id, before->id);
  EXPECT_EQ(after->root, before->root);
  EXPECT_EQ(store->read<bool>([&]() -> Answer<bool> {
    return store->accountWithKey(hashOfKey("another key of ann")).has_value() &&
           !store->accountWithKey(hashOfKey(rig.keyOf("ann")));
  }),
            true);
}

TEST(AccountsTest, TwoAccountsCannotHaveOneKey) {
  StorageRig rig;
  auto store = rig.stores().writer();
  const auto refused = setAccount(*store, "carl", rig.keyOf("ann"), 0);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().status, 409);
}

TEST(AccountsTest, TheKeyItselfIsStoredNowhere) {
  StorageRig rig;
  rig.makeFile("a", "x");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(rig.folder().path())) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.find(rig.keyOf("ann")), std::string::npos) << entry.path();
  }
}

}  // namespace
}  // namespace vondle::storage
