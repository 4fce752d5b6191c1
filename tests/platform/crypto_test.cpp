// Hashes and encodings against published examples, and the computer's identity.
#include "platform/crypto.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace qvn {
namespace {

TEST(Crypto, HashesAndEncodingsMatchThePublishedExamples) {
  EXPECT_EQ(hexText(sha256("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // As a proof-key challenge is written: the URL-safe form, no padding.
  EXPECT_EQ(base64url(sha256("abc")), "ungWv48Bz-pBQUDeXa4iI7ADYaOWF3qctBD_YfIAFa0");
  const std::uint8_t two[] = {0xfb, 0xff};
  EXPECT_EQ(base64url(two), "-_8");
  EXPECT_EQ(randomBytes(32).size(), 32u);
  EXPECT_NE(randomBytes(16), randomBytes(16));
}

TEST(Crypto, TheComputersIdentityIsAStableHashNeverTheIdItself) {
  const auto file = std::filesystem::temp_directory_path() / "qvn-machine-id";
  std::ofstream(file) << "0123456789abcdef0123456789abcdef\n";
  const auto id = machineIdentity(file.string());
  ASSERT_TRUE(id);
  EXPECT_EQ(id->size(), 64u);
  EXPECT_EQ(id->find("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(machineIdentity(file.string()), id);
  std::filesystem::remove(file);
  EXPECT_FALSE(machineIdentity(file.string()));
}

}  // namespace
}  // namespace qvn
