// Sealed values, and the metadata store on top of the engine.

#include <gtest/gtest.h>

#include "lsm/lsm_db.h"
#include "store/meta_store.h"
#include "store/value_envelope.h"
#include "support/hex.h"
#include "support/temp_dir.h"

namespace kandb::store {
namespace {

using testing::Hex;
using testing::TempDir;

TEST(Envelope, SealsAndOpens) {
  const StoreCrypto on = {.encrypted = true, .key = {1, 2, 3}};
  for (const std::size_t size : {0u, 1u, 15u, 16u, 17u, 1000u}) {
    const std::string value(size, 'v');
    const std::string sealed = SealValue(on, value);
    const std::string again = SealValue(on, value);
    EXPECT_EQ(sealed.size(), 16 + (size / 16 + 1) * 16);
    EXPECT_EQ(sealed.substr(0, 8), again.substr(0, 8));  // the prefix of the process
    EXPECT_EQ(LoadU64(sealed.data() + 8) + 1, LoadU64(again.data() + 8));
    EXPECT_NE(sealed.substr(16, 16), again.substr(16, 16));
    std::string opened;
    EXPECT_TRUE(OpenValue(on, sealed, &opened).ok());
    EXPECT_EQ(opened, value);
    EXPECT_EQ(SealValue({}, value), value);
  }
}

TEST(Envelope, NamesTheDamage) {
  const std::pair<std::size_t, const char*> cases[] = {
      {15, "Corruption: tde: ciphertext too short"},
      {16, "InvalidArgument: sm4: ciphertext not block-aligned"},
      {32, "InvalidArgument: sm4: bad padding"}};
  for (const auto& [size, error] : cases) {
    std::string value = "untouched";
    EXPECT_EQ(OpenValue({.encrypted = true, .key = {}}, std::string(size, 'x'), &value).ToString(),
              error);
    EXPECT_EQ(value, "untouched");
  }
}

class MetaStoreTest : public ::testing::TestWithParam<const char*> {
 protected:
  std::unique_ptr<MetaStore> Open(const std::string& passphrase) const {
    std::unique_ptr<MetaStore> store;
    EXPECT_TRUE(MetaStore::Open(dir.path(), passphrase, 0, &store).ok());
    return store;
  }
  TempDir dir;
};
INSTANTIATE_TEST_SUITE_P(PlainAndSealed, MetaStoreTest, ::testing::Values("", "secret"));

TEST_P(MetaStoreTest, KeepsPairsAcrossReopening) {
  auto store = Open(GetParam());
  ASSERT_TRUE(store->Put({{"a", "1"}, {"b", ""}, {"c", "3"}, {"d", "4"}}).ok());
  ASSERT_TRUE(store->Delete({"d"}).ok());
  // Puts come before deletes, whatever their keys.
  ASSERT_TRUE(store->Write({{"c", "new"}, {"e", "5"}}, {"a", "e"}).ok());
  store = nullptr;
  store = Open(GetParam());

  std::string value = "untouched";
  bool found = true;
  EXPECT_TRUE(store->Get("a", &value, &found).ok());
  EXPECT_FALSE(found);
  EXPECT_EQ(value, "untouched");
  EXPECT_TRUE(store->Get("c", &value, &found).ok());
  EXPECT_EQ(value, "new");
  std::vector<KeyValue> pairs = {{"before", ""}};
  EXPECT_TRUE(store->Scan("", "", 10, &pairs).ok());
  EXPECT_EQ(pairs, (std::vector<KeyValue>{{"before", ""}, {"b", ""}, {"c", "new"}}));
  int visits = 0;
  EXPECT_TRUE(
      store->CaptureView().ForEach("", "", 10, [&](auto, auto) { return ++visits < 1; }).ok());
  EXPECT_EQ(visits, 1);
}

TEST_F(MetaStoreTest, AnotherPassphraseOpensNoValue) {
  std::vector<KeyValue> pairs;
  for (char key = 'a'; key <= 'j'; ++key) pairs.push_back({std::string(1, key), "value"});
  EXPECT_TRUE(Open("secret")->Put(pairs).ok());
  std::string value = "untouched";
  bool found = false;
  EXPECT_TRUE(Open("")->Get("a", &value, &found).ok());
  EXPECT_EQ(value.size(), 32u);
  // Of one value in 256 another key makes something that looks like padding, but not of all these.
  EXPECT_EQ(Open("another")->Scan("", "", 10, &pairs).ToString(),
            "InvalidArgument: sm4: bad padding");
}

// The published digest of "abc" begins with the key under which openssl sealed this value:
// 66c7f0f4 62eeedd9 d1f2d46b dc10e4e2.
TEST_F(MetaStoreTest, ThePassphraseOpensWhatIsSealedUnderTheFrontOfItsDigest) {
  const std::string iv = Hex("00010203 04050607 08090a0b 0c0d0e0f");
  EXPECT_TRUE(Open("")->Put({{"k", iv + Hex("96253fb7 a2452c0a b4ea55a0 9719bada")}}).ok());
  std::string value;
  bool found = false;
  EXPECT_EQ(Open("abc")->Get("k", &value, &found).ToString(), "OK");
  EXPECT_EQ(value, "value");
}

}  // namespace
}  // namespace kandb::store
