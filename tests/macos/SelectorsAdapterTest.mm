/// The names of the methods that our classes add to the platform's.

#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#import <objc/runtime.h>

#include <cstdlib>
#include <set>
#include <string>

namespace mirel::test {
namespace {

/// The methods of the class itself, without what the compiler adds for members of C++.
std::set<std::string> methodsOf(const char* className) {
  std::set<std::string> names;
  unsigned count = 0;
  Method* const methods = class_copyMethodList(NSClassFromString(@(className)), &count);
  for (unsigned i = 0; i < count; ++i) {
    const std::string name = sel_getName(method_getName(methods[i]));
    if (name.rfind(".cxx_", 0) != 0) names.insert(name);
  }
  std::free(methods);
  return names;
}

TEST(Selectors, BeginWithOurNameUnlessTheirNamesAreGiven) {
  const std::pair<const char*, std::set<std::string>> rows[] = {
      {"MirelSCTokenDriver", {"init", "tokenDriver:createTokenForSmartCard:AID:error:"}},
      {"MirelSCToken",
       {"initWithSmartCard:AID:MirelSCTokenDriver:error:", "sp", "setSp:", "token:createSessionWithError:"}},
      {"MirelCTKTokenKeychainKey",
       {"initWithCertificate:objectID:certificateID:alwaysAuthenticate:", "certificateID",
        "alwaysAuthenticate"}},
      {"MirelSCTokenSession",
       {"initWithToken:", "authState", "setAuthState:", "sp",
        "setSp:", "tokenSession:beginAuthForOperation:constraint:error:",
        "tokenSession:supportsOperation:usingKey:algorithm:",
        "tokenSession:signData:usingKey:algorithm:error:",
        "tokenSession:decryptData:usingKey:algorithm:error:",
        "tokenSession:performKeyExchangeWithPublicKey:usingKey:algorithm:parameters:error:",
        "authenticatedKeyForObjectID:error:", "generalAuthenticateWithData:dataTag:usingKey:error:"}},
      {"MirelSCTokenAuth", {"initWithSession:", "session", "finishWithError:"}},
  };
  for (const auto& [className, given] : rows) {
    SCOPED_TRACE(className);
    std::set<std::string> unknown = methodsOf(className);
    for (const std::string& name : given) EXPECT_EQ(unknown.erase(name), 1U) << name;
    EXPECT_FALSE(unknown.empty());
    EXPECT_THAT(unknown, ::testing::Each(::testing::StartsWith("mirel_")));
  }
}

}  // namespace
}  // namespace mirel::test
