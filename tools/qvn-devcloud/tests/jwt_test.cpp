// Access tokens: what one secret signs, only that secret accepts, and no edit anywhere in a
// token survives.
#include "jwt.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <string>
#include <vector>

#include "platform/crypto.h"

namespace qvn::devcloud {
namespace {

const std::vector<std::uint8_t> kSecret(32, 7);

nlohmann::json payload() {
  return {{"sub", "1"},
          {"email", "ana@example.com"},
          {"exp", 1'700'000'900},
          {"iat", 1'700'000'000},
          {"device_id", "d1"}};
}

std::string segment(const std::string& token, int index) {
  size_t start = 0;
  for (int i = 0; i < index; ++i) start = token.find('.', start) + 1;
  return token.substr(start, token.find('.', start) - start);
}

std::string encode(const std::string& text) {
  return base64url(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

TEST(Jwt, SignedTokenVerifiesAndReadsBackAsAnyClientWould) {
  const std::string token = signJwt(payload(), kSecret);
  const auto verified = verifyJwt(token, kSecret);
  ASSERT_TRUE(verified);
  EXPECT_EQ(*verified, payload());

  // The header is the fixed one, and the parts are plain base64url as the studio decodes
  // them to read the expiry.
  const auto header = base64urlDecode(segment(token, 0));
  ASSERT_TRUE(header);
  EXPECT_EQ(nlohmann::json::parse(header->begin(), header->end()),
            nlohmann::json({{"alg", "HS256"}, {"typ", "JWT"}}));
  EXPECT_EQ(token.find('='), std::string::npos);
  EXPECT_EQ(token.find('+'), std::string::npos);
  EXPECT_EQ(token.find('/'), std::string::npos);
}

TEST(Jwt, RefusesEveryForgery) {
  const std::string token = signJwt(payload(), kSecret);
  const std::string header = segment(token, 0), signature = segment(token, 2);

  auto raised = payload();
  raised["exp"] = 1'800'000'000;
  EXPECT_FALSE(verifyJwt(header + "." + encode(raised.dump()) + "." + signature, kSecret));

  auto other = payload();
  other["sub"] = "2";
  EXPECT_FALSE(verifyJwt(signJwt(other, std::vector<std::uint8_t>(32, 8)), kSecret));

  std::string flipped = token;
  flipped.back() = flipped.back() == 'A' ? 'B' : 'A';
  EXPECT_FALSE(verifyJwt(flipped, kSecret));

  // An unsigned token that names no algorithm, or a signed one whose header was changed to
  // another, is refused even though its payload is well formed.
  const std::string none = encode(R"({"alg":"none","typ":"JWT"})");
  EXPECT_FALSE(verifyJwt(none + "." + segment(token, 1) + ".", kSecret));
  EXPECT_FALSE(verifyJwt(none + "." + segment(token, 1) + "." + signature, kSecret));

  for (const std::string& broken :
       {std::string(), std::string("a.b"), token + ".x", header + "." + segment(token, 1),
        "!!." + segment(token, 1) + "." + signature})
    EXPECT_FALSE(verifyJwt(broken, kSecret)) << broken;
}

TEST(Jwt, RefusesAHeaderThatNamesAnotherAlgorithmEvenWithAGoodSignature) {
  // A correct MAC over a header that says HS512: the token must not choose the algorithm.
  const std::string signedPart =
      encode(R"({"alg":"HS512","typ":"JWT"})") + "." + segment(signJwt(payload(), kSecret), 1);
  std::uint8_t mac[32];
  unsigned int length = 0;
  HMAC(EVP_sha256(), kSecret.data(), int(kSecret.size()),
       reinterpret_cast<const std::uint8_t*>(signedPart.data()), signedPart.size(), mac, &length);
  EXPECT_FALSE(verifyJwt(signedPart + "." + base64url(std::span(mac, length)), kSecret));
}

TEST(Base64url, DecodesWithOrWithoutPaddingAndRefusesTheOtherAlphabet) {
  const std::vector<std::uint8_t> bytes = {0xfb, 0xff, 0x01};
  EXPECT_EQ(base64urlDecode("-_8B"), bytes);
  const auto digest = sha256("x");
  EXPECT_EQ(base64urlDecode(base64url(digest)),
            std::vector<std::uint8_t>(digest.begin(), digest.end()));
  EXPECT_EQ(base64urlDecode("YQ"), std::vector<std::uint8_t>{'a'});
  EXPECT_EQ(base64urlDecode("YQ=="), std::vector<std::uint8_t>{'a'});
  EXPECT_FALSE(base64urlDecode("+/8B"));
  EXPECT_FALSE(base64urlDecode("Y"));
  EXPECT_FALSE(base64urlDecode("Y*Q"));
}

}  // namespace
}  // namespace qvn::devcloud
