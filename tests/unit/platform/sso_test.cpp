// Tokens of single sign-on: made with real keys, accepted only as they should be.
#include <gtest/gtest.h>
#include <vemo/cgi.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <string>

#include "support/request.h"

namespace {

constexpr char kDirectory[] = "/usr/vemo/etc/sso";

std::string Shell(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  for (size_t size; (size = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    output.append(buffer, size);
  pclose(pipe);
  return output;
}

using Claims = std::map<std::string, std::string>;  // values are JSON

std::string Json(const Claims& claims) {
  std::string text = "{";
  for (const auto& [name, value] : claims) {
    if (value.empty()) continue;  // left out
    text += (text.size() > 1 ? ",\"" : "\"") + name + "\":" + value;
  }
  return text + "}";
}

std::string InSeconds(long seconds) { return std::to_string(time(nullptr) + seconds); }

class Sso : public testing::Test {
 protected:
  void SetUp() override {
    tool_ = std::string(ZEM_SOURCE_DIR) + "/tests/support/tokens.py";
    Shell("mkdir -p /usr/vemo/etc; rm -rf " + std::string(kDirectory) +
          "; useradd -M carol 2>/dev/null; /usr/bin/python3 -I " + tool_ + " keys " + kDirectory);
    Configure("oidc.json", R"("issuer":"https://id.example","audience":"app")");
    good_ = {{"iss", "\"https://id.example\""},
             {"aud", "\"app\""},
             {"exp", InSeconds(300)},
             {"iat", InSeconds(-5)},
             {"nonce", "\"n-1\""},
             {"preferred_username", "\"carol\""}};
  }

  void Configure(const char* file, const std::string& members) {
    std::ofstream(std::string(kDirectory) + "/" + file)
        << "{" << members << ",\"keys\":\"" << kDirectory << "/keys.json\"}";
  }

  std::string Token(const std::string& header, const std::string& claims,
                    const char* key = "rsa.pem") {
    return Shell("/usr/bin/python3 -I " + tool_ + " sign " + kDirectory + " " + key + " '" +
                 header + "' '" + claims + "'");
  }

  std::string GoodWith(const Claims& changes) {
    Claims claims = good_;
    for (const auto& [name, value] : changes)
      claims[name] = value;
    return Token(kRs256, Json(claims));
  }

  // The result and, after a success, the account.
  std::string LogIn(const std::string& token, const char* nonce = "n-1", bool required = true,
                    bool azure = false) {
    Shell("rm -rf /run/vemo/login");  // failures are counted, and tested elsewhere
    const support::Answer answer = support::RunRequest(support::Post(""), "", [&] {
      VEMOCGI context;
      VemoCgiInit("", &context);
      _tag_login_params params = {};
      params.user = "typed";
      params.nonce = nonce;
      char reason[122];
      const int result = (azure ? VemoCgiLoginWithAzureSSOAuth : VemoCgiLoginWithOIDCSSOAuth)(
          &context, reason, sizeof reason, &params, token.c_str(), required, 0);
      std::printf("%d %s", result, result == 1 ? params.user : "");
      VemoCgiFree(&context);
      fflush(stdout);
      _exit(0);
    });
    return answer.output;
  }

  static constexpr char kRs256[] = R"({"alg":"RS256","kid":"rsa"})";
  std::string tool_;
  Claims good_;
};

TEST_F(Sso, AGoodTokenLogsItsAccountIn) {
  EXPECT_EQ(LogIn(GoodWith({})), "1 carol");
  EXPECT_EQ(LogIn(Token(R"({"alg":"RS256","kid":"rsa","typ":"jwt"})", Json(good_))), "1 carol");
  EXPECT_EQ(LogIn(Token(R"({"alg":"ES256","kid":"ec"})", Json(good_), "ec.pem")), "1 carol");
}

TEST_F(Sso, AKeyMustBeNamedUnlessItIsTheOnlyOne) {
  const std::string unnamed = Token(R"({"alg":"RS256"})", Json(good_));
  EXPECT_EQ(LogIn(unnamed), "-6 ");
  Shell("/usr/bin/python3 -I -c 'import json; f = \"" + std::string(kDirectory) +
        "/keys.json\"; k = json.load(open(f)); k[\"keys\"] = k[\"keys\"][:1]; "
        "json.dump(k, open(f, \"w\"))'");
  EXPECT_EQ(LogIn(unnamed), "1 carol");
}

TEST_F(Sso, ASignatureThatIsNoneIsRefused) {
  const std::string good = GoodWith({});
  std::string tampered = good;
  tampered[good.find('.') + 10] ^= 1;
  const std::string claims = Json(good_);
  const struct {
    const char* what;
    std::string token;
  } rows[] = {
      {"tampered", tampered},
      {"without a signature", good.substr(0, good.rfind('.') + 1)},
      {"alg none", Token(R"({"alg":"none"})", claims, "none")},
      {"alg none with a key's name", Token(R"({"alg":"none","kid":"rsa"})", claims, "none")},
      {"a public key as a secret", Token(R"({"alg":"HS256","kid":"rsa"})", claims, "hmac:rsa.pub")},
      {"a key that is not ours", Token(kRs256, claims, "other.pem")},
      {"an unknown key", Token(R"({"alg":"RS256","kid":"none"})", claims)},
      {"another key's name", Token(R"({"alg":"RS256","kid":"ec"})", claims)},
      {"another algorithm", Token(R"({"alg":"RS512","kid":"rsa"})", claims)},
      {"jku", Token(R"({"alg":"RS256","kid":"rsa","jku":"https://evil.example/k"})", claims)},
      {"jwk", Token(R"({"alg":"RS256","kid":"rsa","jwk":{"kty":"RSA"}})", claims)},
      {"another type", Token(R"({"alg":"RS256","kid":"rsa","typ":"at+jwt"})", claims)},
      {"a type of another kind", Token(R"({"alg":"RS256","kid":"rsa","typ":1})", claims)},
      {"a name of another kind", Token(R"({"alg":"RS256","kid":1})", claims)},
      {"crit", Token(R"({"alg":"RS256","kid":"rsa","crit":["x"],"x":1})", claims)},
      {"empty", ""},
      {"text", "abc"},
      {"dots", ".."},
      {"a megabyte", std::string(1000000, 'a')},
  };
  for (const auto& row : rows)
    EXPECT_EQ(LogIn(row.token), "-6 ") << row.what;
}

TEST_F(Sso, EveryClaimIsChecked) {
  const struct {
    const char* what;
    Claims changes;
    const char* result;
  } rows[] = {
      {"expired", {{"exp", InSeconds(-120)}}, "-6 "},
      {"expired within the leeway", {{"exp", InSeconds(-30)}}, "1 carol"},
      {"no end", {{"exp", ""}}, "-6 "},
      {"an end that is text", {{"exp", "\"tomorrow\""}}, "-6 "},
      {"not valid yet", {{"nbf", InSeconds(120)}}, "-6 "},
      {"valid within the leeway", {{"nbf", InSeconds(30)}}, "1 carol"},
      {"a beginning that is text", {{"nbf", "\"x\""}}, "-6 "},
      {"issued in the future", {{"iat", InSeconds(120)}}, "-6 "},
      {"no issue time", {{"iat", ""}}, "-6 "},
      {"another issuer", {{"iss", "\"https://id.example/\""}}, "-6 "},
      {"no issuer", {{"iss", ""}}, "-6 "},
      {"another audience", {{"aud", "\"other\""}}, "-6 "},
      {"no audience", {{"aud", ""}}, "-6 "},
      {"an audience of another kind", {{"aud", "7"}}, "-6 "},
      {"a list of one", {{"aud", "[\"app\"]"}}, "1 carol"},
      {"several without a party", {{"aud", "[\"app\",\"other\"]"}}, "-6 "},
      {"several for us", {{"aud", "[\"app\",\"other\"]"}, {"azp", "\"app\""}}, "1 carol"},
      {"several for another", {{"aud", "[\"app\",\"other\"]"}, {"azp", "\"other\""}}, "-6 "},
      {"one for another party", {{"azp", "\"other\""}}, "-6 "},
      {"another nonce", {{"nonce", "\"n-2\""}}, "-6 "},
      {"no nonce", {{"nonce", ""}}, "-6 "},
      {"no name", {{"preferred_username", ""}}, "-6 "},
      {"an empty name", {{"preferred_username", "\"\""}}, "-6 "},
      {"a name of another kind", {{"preferred_username", "[\"carol\"]"}}, "-6 "},
      {"a path", {{"preferred_username", "\"../carol\""}}, "-6 "},
      {"an option", {{"preferred_username", "\"-carol\""}}, "-6 "},
      {"a NUL byte", {{"preferred_username", "\"carol\\u0000x\""}}, "-6 "},
      {"an unknown account", {{"preferred_username", "\"nobody-there\""}}, "-6 "},
  };
  for (const auto& row : rows)
    EXPECT_EQ(LogIn(GoodWith(row.changes)), row.result) << row.what;
}

TEST_F(Sso, TheNonceIsAskedForWhenTheProgramSaysSo) {
  EXPECT_EQ(LogIn(GoodWith({}), nullptr, true), "-6 ");
  EXPECT_EQ(LogIn(GoodWith({}), "", true), "-6 ");
  EXPECT_EQ(LogIn(GoodWith({}), nullptr, false), "1 carol");
  EXPECT_EQ(LogIn(GoodWith({}), "n-2", false), "-6 ");
}

TEST_F(Sso, ClaimsThatAreNoObjectAreRefused) {
  for (const std::string claims : {"[]", "1", "null", "\"x\"", "{", ""}) {
    EXPECT_EQ(LogIn(Token(kRs256, claims)), "-6 ") << claims;
  }
  std::string deep = "{\"a\":";
  for (int i = 0; i < 200; ++i)
    deep += '[';
  EXPECT_EQ(LogIn(Token(kRs256, deep)), "-6 ");
}

TEST_F(Sso, ADisabledAccountIsRefused) {
  Shell("usermod -e 1 carol");
  EXPECT_EQ(LogIn(GoodWith({})), "-2 ");
}

TEST_F(Sso, AnAccountWithASecondFactorNeedsAProviderThatSawTwo) {
  Shell(
      "mkdir -p /usr/vemo/etc/otp; echo 'secret=\"JBSWY3DPEHPK3PXPJBSWY3DP\"' > "
      "/usr/vemo/etc/otp/carol; chmod 600 /usr/vemo/etc/otp/carol");
  EXPECT_EQ(LogIn(GoodWith({})), "-3 ");
  EXPECT_EQ(LogIn(GoodWith({{"amr", "[\"pwd\"]"}})), "-3 ");
  EXPECT_EQ(LogIn(GoodWith({{"amr", "[\"pwd\",\"mfa\"]"}})), "1 carol");
}

TEST_F(Sso, TheClaimThatNamesTheAccountIsConfigured) {
  Configure("oidc.json", R"("issuer":"https://id.example","audience":"app","claim":"sub")");
  EXPECT_EQ(LogIn(GoodWith({{"sub", "\"carol\""}, {"preferred_username", "\"root\""}})), "1 carol");
  EXPECT_EQ(LogIn(GoodWith({})), "-6 ");
}

TEST_F(Sso, ATenantMustBeOnTheList) {
  Configure(
      "azure.json",
      R"("issuer":"https://login.example/{tenantid}/v2.0","audience":"app","tenants":["t1"])");
  const auto log_in = [&](const char* tenant, const char* issuer) {
    return LogIn(GoodWith({{"tid", tenant}, {"iss", issuer}}), "n-1", true, true);
  };
  EXPECT_EQ(log_in("\"t1\"", "\"https://login.example/t1/v2.0\""), "1 carol");
  EXPECT_EQ(log_in("\"t2\"", "\"https://login.example/t2/v2.0\""), "-6 ");
  EXPECT_EQ(log_in("\"t1\"", "\"https://login.example/t2/v2.0\""), "-6 ");
  EXPECT_EQ(log_in("\"t1\"", "\"https://login.example/{tenantid}/v2.0\""), "-6 ");
  EXPECT_EQ(log_in("", "\"https://login.example/t1/v2.0\""), "-6 ");
  Configure("azure.json", R"("issuer":"https://login.example/{tenantid}/v2.0","audience":"app")");
  EXPECT_EQ(log_in("\"t1\"", "\"https://login.example/t1/v2.0\""), "-6 ");
}

TEST_F(Sso, AConfigurationThatIsNoneIsAFault) {
  const std::string good = GoodWith({});
  Shell(std::string("mv ") + kDirectory + "/keys.json " + kDirectory + "/away");
  EXPECT_EQ(LogIn(good), "0 ");
  Shell(std::string("echo '[]' > ") + kDirectory + "/keys.json");
  EXPECT_EQ(LogIn(good), "0 ");
  Shell(std::string("echo '{\"keys\":{}}' > ") + kDirectory + "/keys.json");
  EXPECT_EQ(LogIn(good), "0 ");
  Shell(std::string("echo '{\"keys\":[1,null,{},{\"kty\":\"RSA\"}]}' > ") + kDirectory +
        "/keys.json");
  EXPECT_EQ(LogIn(good), "-6 ");
  for (const char* text : {"", "{", "[]", "{}"}) {
    std::ofstream(std::string(kDirectory) + "/oidc.json") << text;
    EXPECT_EQ(LogIn(good), "0 ") << text;
  }
  Shell(std::string("rm ") + kDirectory + "/oidc.json");
  EXPECT_EQ(LogIn(good), "0 ");
}

}  // namespace
