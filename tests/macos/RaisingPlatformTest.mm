/// What becomes of a request in which the platform raises: each call of the platform under each method that
/// the platform calls.

#import <Foundation/Foundation.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <set>

#import "AdapterTest.h"
#import "CoreHolder.h"
#import "MirelCTKTokenKeychainKey.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenDriver.h"
#import "MirelSCTokenSession.h"
#import "double/Objects.h"
#import "double/RaisingCall.h"
#import "double/Utf8.h"
#include "platform/UserDirectory.h"

/// A text that the platform hands to us; a class for each, so that one alone raises.
@interface GivenText : NSString {
  NSString* _text;
}
+ (instancetype)with:(NSString*)text;
@end
@implementation GivenText
+ (instancetype)with:(NSString*)text {
  GivenText* const made = [[[self alloc] init] autorelease];
  made->_text = [text copy];
  return made;
}
- (void)dealloc {
  [_text release];
  [super dealloc];
}
- (id)copyWithZone:(NSZone*)zone {
  return [self retain];
}
- (NSUInteger)length {
  return [_text length];
}
- (unichar)characterAtIndex:(NSUInteger)index {
  return [_text characterAtIndex:index];
}
@end
#define GIVEN_TEXT(name)      \
  @interface name : GivenText \
  @end                        \
  @implementation name        \
  @end
GIVEN_TEXT(ReaderName)
GIVEN_TEXT(KeyName)
GIVEN_TEXT(Constraint)
GIVEN_TEXT(EnteredPin)
#undef GIVEN_TEXT

@interface GivenData : NSData
@end
@implementation GivenData
- (instancetype)init {
  return self;  // that of the class cluster is for other classes
}
- (NSUInteger)length {
  return 256;
}
- (const void*)bytes {
  static const std::array<std::uint8_t, 256> data{1, 2, 3};
  return data.data();
}
@end

namespace mirel::test {
namespace {

constexpr unsigned kSigning = 1U << 0U;

/// The user as the platform knows him, in the home of the test.
class UserOfThePlatform final : public UserDirectory {
 public:
  explicit UserOfThePlatform(std::shared_ptr<FakeUserDirectory> homes) : homes_{std::move(homes)} {}
  [[nodiscard]] std::string loginName() noexcept override { return systemUserDirectory()->loginName(); }
  [[nodiscard]] std::string homeOf(const std::string& loginName) noexcept override {
    return homes_->homeOf(loginName);
  }

 private:
  std::shared_ptr<FakeUserDirectory> homes_;
};

/// All that a request needs.
struct World {
  explicit World(bool logsIn) {
    prepareAgain();
    if (logsIn) {
      EXPECT_TRUE([operation finishWithError:nil]);
    }
  }
  ~World() {
    [operation release];
    [session release];
    [token release];
    [driver release];
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void prepareAgain() {
    answer = nil;
    isYes = false;
    error = nil;
    [operation setPIN:[EnteredPin with:@"123456"]];
  }

  ::MirelSCTokenDriver* driver = [[::MirelSCTokenDriver alloc] init];
  ::TKSmartCard* card =
      [[[[TKSmartCardSlot alloc] initWithName:[ReaderName with:@(kReaderName)]] autorelease] makeSmartCard];
  ::MirelSCToken* token = [[::MirelSCToken alloc] initWithSmartCard:card
                                                                AID:nil
                                                 MirelSCTokenDriver:driver
                                                              error:nil];
  ::MirelSCTokenSession* session = [[::MirelSCTokenSession alloc] initWithToken:token];
  ::MirelSCTokenAuth* operation = [[::MirelSCTokenAuth alloc] initWithSession:session];
  KeyName* key = [KeyName with:@"01"];
  GivenData* data = [[[GivenData alloc] init] autorelease];
  ::TKTokenKeyAlgorithm* signing =
      [::TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithmRSASignatureRaw];
  ::TKTokenKeyAlgorithm* decrypting =
      [::TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithmRSAEncryptionPKCS1];

  NSError* earlier = [NSError errorWithDomain:@"earlier" code:1 userInfo:nil];

  /// What the request has come to.
  id answer = nil;
  bool isYes = false;
  NSError* error = nil;
};

std::string withError(const World& world, std::string text) {
  return world.error ? text + " " + std::to_string([world.error code]) : text;
}

std::string tellObject(World& world) { return withError(world, world.answer ? "made" : "nil"); }

std::string tellDelegate(World& world) {
  return world.answer && [world.answer delegate] != world.answer ? "no delegate" : tellObject(world);
}

std::string tellData(World& world) {
  const bool isEmpty = world.answer && [static_cast<NSData*>(world.answer) length] == 0;
  return isEmpty ? "empty" : tellObject(world);
}

std::string tellBool(World& world) { return withError(world, world.isYes ? "YES" : "NO"); }

std::string tellToken(World& world) {
  std::string text = tellDelegate(world);
  for (TKTokenKeychainItem* item in [[static_cast<::TKToken*>(world.answer) keychainContents] items]) {
    const bool isKey = [item isKindOfClass:[::TKTokenKeychainKey class]];
    text += isKey ? ", key:" : ", certificate:";
    if ([item label]) text += " label";
    if (!isKey) continue;
    ::TKTokenKeychainKey* const key = static_cast<::TKTokenKeychainKey*>(item);
    if ([key constraints]) text += " constraints";
    if ([key canSign]) text += " signs";
    if ([key canDecrypt]) text += " decrypts";
    if ([key canPerformKeyExchange]) text += " exchanges";
    if ([key isSuitableForLogin]) text += " login";
  }
  return text;
}

std::string tellRequest(World& world) {
  ::MirelSCTokenAuth* const request = world.answer;
  if (!request) return withError(world, "nil");
  return "card " + std::to_string([request smartCard] != nil) + ", command " +
         std::to_string([[request APDUTemplate] length]) + ", bit " +
         std::to_string([[request PINFormat] PINBitOffset]);
}

std::string tellLogin(World& world) {
  TKSmartCard* const card = [world.session smartCard];
  std::string text = tellBool(world);
  if ([card sensitive]) text += " sensitive";
  if ([[card context] isEqual:@YES]) text += " marked";
  return [world.operation PIN] ? text + " PIN" : text;
}

void askToSign(World& world) {
  world.answer = [world.session tokenSession:world.session
                                    signData:world.data
                                    usingKey:world.key
                                   algorithm:world.signing
                                       error:&world.error];
}

struct Entry {
  std::string name;
  bool logsIn;
  void (*act)(World&);
  std::string (*tell)(World&);
  /// What it comes to when nothing raises.
  std::string normally;
};

const std::vector<Entry>& entries() {
  static const std::vector<Entry> all{
      {"driver", false, [](World& w) { w.answer = [[[::MirelSCTokenDriver alloc] init] autorelease]; },
       tellDelegate, "made"},
      {"createToken", false,
       [](World& w) {
         w.answer = [w.driver tokenDriver:w.driver createTokenForSmartCard:w.card AID:nil error:&w.error];
       },
       tellToken, "made, certificate: label, key: label constraints signs login"},
      {"token", false,
       [](World& w) {
         w.answer = [[[::MirelSCToken alloc] initWithSmartCard:w.card
                                                           AID:nil
                                            MirelSCTokenDriver:w.driver
                                                         error:&w.error] autorelease];
       },
       tellToken, "made, certificate: label, key: label constraints signs login"},
      {"createSession", false,
       [](World& w) { w.answer = [w.token token:w.token createSessionWithError:nil]; }, tellDelegate, "made"},
      {"createSessionAfterError", false,
       [](World& w) { w.answer = [w.token token:w.token createSessionWithError:&w.earlier]; }, tellDelegate,
       "made"},
      {"session", false,
       [](World& w) { w.answer = [[[::MirelSCTokenSession alloc] initWithToken:w.token] autorelease]; },
       tellDelegate, "made"},
      {"begin", false,
       [](World& w) {
         w.answer = [w.session tokenSession:w.session
                      beginAuthForOperation:TKTokenOperationSignData
                                 constraint:[Constraint with:@"PIN"]
                                      error:&w.error];
       },
       tellRequest, "card 1, command 13, bit 40"},
      {"beginOther", false,
       [](World& w) {
         w.answer = [w.session tokenSession:w.session
                      beginAuthForOperation:TKTokenOperationSignData
                                 constraint:[Constraint with:@"Face"]
                                      error:&w.error];
       },
       tellRequest, "nil -8"},
      {"operation", false,
       [](World& w) { w.answer = [[[::MirelSCTokenAuth alloc] initWithSession:w.session] autorelease]; },
       tellRequest, "card 1, command 13, bit 40"},
      {"finish", false, [](World& w) { w.isYes = [w.operation finishWithError:&w.error]; }, tellLogin,
       "YES sensitive marked"},
      {"finishWrong", false,
       [](World& w) {
         [w.session setSp:nil];
         w.isYes = [w.operation finishWithError:&w.error];
       },
       tellLogin, "NO -5"},
      {"supports", false,
       [](World& w) {
         w.isYes = [w.session tokenSession:w.session
                         supportsOperation:TKTokenOperationSignData
                                  usingKey:w.key
                                 algorithm:w.signing];
       },
       tellBool, "YES"},
      {"sign", true, askToSign, tellData, "made"},
      {"signFirst", false, askToSign, tellData, "nil -9"},
      {"decrypt", true,
       [](World& w) {
         w.answer = [w.session tokenSession:w.session
                                decryptData:w.data
                                   usingKey:w.key
                                  algorithm:w.decrypting
                                      error:&w.error];
       },
       tellData, "empty"},
      {"exchange", true,
       [](World& w) {
         w.answer = [w.session tokenSession:w.session
             performKeyExchangeWithPublicKey:w.data
                                    usingKey:w.key
                                   algorithm:w.signing
                                  parameters:[[[TKTokenKeyExchangeParameters alloc] init] autorelease]
                                       error:&w.error];
       },
       tellData, "nil"},
      {"authenticatedKey", true,
       [](World& w) { w.answer = [w.session authenticatedKeyForObjectID:w.key error:&w.error]; }, tellObject,
       "made"},
      {"generalAuthenticate", true,
       [](World& w) {
         w.answer = [w.session generalAuthenticateWithData:w.data dataTag:0x82 usingKey:w.key error:&w.error];
       },
       tellObject, "made"},
      {"key", false,
       [](World& w) {
         w.answer = [[[::MirelCTKTokenKeychainKey alloc] initWithCertificate:nil
                                                                    objectID:w.key
                                                               certificateID:nil
                                                          alwaysAuthenticate:YES] autorelease];
       },
       tellObject, "made"},
      {"algorithmToPrint", false, [](World& w) { ::algorithmToPrint(w.signing); }, tellObject, "nil"},
  };
  return all;
}

struct RaisedCall {
  std::string call;
  /// What the log says does not happen; nothing is said of the calls that write the log.
  std::string line;
  /// What the requests come to in which the call is made.
  std::vector<std::pair<std::string, std::vector<std::string>>> outcomes;
  /// The certificate's.
  unsigned keyUsage = kSigning;
};

void PrintTo(const RaisedCall& row, std::ostream* out) { *out << row.call; }

/// The request does without what the call would have told or done.
constexpr const char* kAsEver = "as ever";

// clang-format off
const RaisedCall kCalls[] = {
    {"-[TKSmartCard slot]", "the reader's name is not known", {{kAsEver, {"createToken", "token", "finish", "sign", "decrypt"}}}},
    {"-[TKSmartCardSlot name]", "the reader's name is not known", {{kAsEver, {"createToken", "token", "finish", "sign", "decrypt"}}}},
    {"-[ReaderName length]", "a text is not read", {{kAsEver, {"createToken", "token", "finish", "sign", "decrypt"}}}},
    {"-[KeyName length]", "a text is not read", {{"NO", {"supports"}}, {"nil -7", {"sign", "decrypt", "exchange"}}, {"nil -6", {"signFirst", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[Constraint length]", "a text is not read", {{"nil -8", {"begin"}}, {kAsEver, {"beginOther"}}}},
    {"-[EnteredPin length]", "the PIN is not read", {{"NO -5", {"finish"}}, {kAsEver, {"finishWrong"}}}},
    {"-[GivenData bytes]", "data are not read", {{"nil", {"sign", "signFirst", "decrypt"}}, {kAsEver, {"generalAuthenticate"}}}},
    {"-[TKSmartCard cla]", "the class of the card's commands is not known", {{kAsEver, {"begin", "operation"}}}},
    {"-[TKSmartCard setSensitive:]", "the card is not marked as sensitive", {{"YES marked", {"finish"}}}},
    {"-[TKSmartCard context]", "the mark on the card is not known", {{"nil -7", {"sign", "decrypt"}}, {"nil -9", {"authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKSmartCard setContext:]", "the card is not marked as in use", {{"YES sensitive", {"finish"}}}},
    {"-[TKSmartCardTokenSession smartCard]", "the session has no connection to the card", {{"card 0, command 13, bit 40", {"begin", "operation"}}, {"YES", {"finish"}}, {"nil -7", {"sign", "decrypt"}}, {"nil -9", {"authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenSession token]", "a key is not found", {{"NO", {"supports"}}, {"nil -7", {"sign", "decrypt", "exchange"}}, {"nil", {"signFirst", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKToken keychainContents]", "the card's items are not published", {{"made", {"createToken", "token"}}}},
    {"-[TKToken keychainContents]", "a key is not found", {{"NO", {"supports"}}, {"nil -7", {"sign", "decrypt", "exchange"}}, {"nil", {"signFirst", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenKeychainContents keyForObjectID:error:]", "a key is not found", {{"NO", {"supports"}}, {"nil -7", {"sign", "decrypt", "exchange"}}, {"nil", {"signFirst", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenKeychainContents fillWithItems:]", "the card's items are not published", {{"made", {"createToken", "token"}}}},
    {"-[TKTokenKeychainKey canSign]", "a key can do nothing", {{"NO", {"supports"}}, {kAsEver, {"sign", "signFirst", "decrypt", "exchange", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenKeychainKey canDecrypt]", "a key can do nothing", {{"NO", {"supports"}}, {kAsEver, {"sign", "signFirst", "decrypt", "exchange", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenKeychainKey canPerformKeyExchange]", "a key can do nothing", {{"NO", {"supports"}}, {kAsEver, {"sign", "signFirst", "decrypt", "exchange", "authenticatedKey", "generalAuthenticate"}}}},
    {"-[TKTokenKeychainKey setCanSign:]", "a key cannot do what its certificate allows", {{"made, certificate: label, key: label constraints login", {"createToken", "token"}}}},
    {"-[TKTokenKeychainKey setCanDecrypt:]", "a key cannot do what its certificate allows", {{"made, certificate: label, key: label constraints login", {"createToken", "token"}}}, 1U << 2U},
    {"-[TKTokenKeychainKey setCanPerformKeyExchange:]", "a key cannot do what its certificate allows", {{"made, certificate: label, key: label constraints", {"createToken", "token"}}}, 1U << 4U},
    {"-[TKTokenKeychainKey setSuitableForLogin:]", "a key is not suitable for login", {{"made, certificate: label, key: label constraints signs", {"createToken", "token"}}}},
    {"-[TKTokenKeychainKey setLabel:]", "a key has no label", {{"made, certificate: label, key: constraints signs login", {"createToken", "token"}}}},
    {"-[TKTokenKeychainKey setConstraints:]", "a key has no constraints", {{"made, certificate: label, key: label signs login", {"createToken", "token"}}}},
    {"-[TKTokenKeychainKey initWithCertificate:objectID:]", "the object is not made", {{"made, certificate: label", {"createToken", "token"}}, {"nil", {"key"}}}},
    {"-[TKTokenKeychainCertificate initWithCertificate:objectID:]", "the certificate is not published", {{"made, key: label constraints signs login", {"createToken", "token"}}}},
    {"-[TKTokenKeychainCertificate setLabel:]", "a certificate has no label", {{"made, certificate:, key: label constraints signs login", {"createToken", "token"}}}},
    {"-[TKSmartCardToken initWithSmartCard:AID:instanceID:tokenDriver:]", "the object is not made", {{"nil", {"createToken", "token"}}}},
    {"-[TKSmartCardTokenSession initWithToken:]", "the object is not made", {{"nil", {"createSession", "createSessionAfterError", "session"}}}},
    {"-[TKTokenSmartCardPINAuthOperation init]", "the object is not made", {{"nil", {"begin", "operation"}}}},
    {"-[TKTokenDriver init]", "the object is not made", {{"nil", {"driver"}}}},
    {"-[TKToken setDelegate:]", "the object gets no requests", {{"no delegate, certificate: label, key: label constraints signs login", {"createToken", "token"}}}},
    {"-[TKTokenSession setDelegate:]", "the object gets no requests", {{"no delegate", {"createSession", "createSessionAfterError", "session"}}}},
    {"-[TKTokenDriver setDelegate:]", "the object gets no requests", {{"no delegate", {"driver"}}}},
    {"-[TKTokenSmartCardPINAuthOperation smartCard]", "the PIN request has no connection to the card", {{kAsEver, {"finish"}}}},
    {"-[TKTokenSmartCardPINAuthOperation setSmartCard:]", "the PIN request has no card", {{"card 0, command 13, bit 40", {"begin", "operation"}}}},
    {"-[TKTokenSmartCardPINAuthOperation setAPDUTemplate:]", "the PIN request has no command", {{"card 1, command 0, bit 40", {"begin", "operation"}}}},
    {"-[TKTokenSmartCardPINAuthOperation setPINFormat:]", "the PIN request has no format of its own", {{"card 1, command 13, bit 0", {"begin", "operation"}}}},
    {"-[TKTokenSmartCardPINAuthOperation PIN]", "there is no PIN", {{"NO -5", {"finish"}}, {kAsEver, {"finishWrong"}}}},
    {"-[TKTokenSmartCardPINAuthOperation setPIN:]", "the PIN request keeps the PIN", {{"YES sensitive marked PIN", {"finish"}}, {"NO -5 PIN", {"finishWrong"}}}},
    {"-[TKSmartCardPINFormat setPINBitOffset:]", "the PIN request has no format of its own", {{"card 1, command 13, bit 0", {"begin", "operation"}}}},
    {"-[TKTokenKeyAlgorithm isAlgorithm:]", "an algorithm is not recognised", {{"NO", {"supports"}}, {"nil", {"sign", "decrypt"}}, {kAsEver, {"algorithmToPrint"}}}},
    {"-[TKToken description]", "an object is not printed", {{kAsEver, {"createToken", "createSession", "createSessionAfterError"}}}},
    {"-[TKTokenSession description]", "an object is not printed", {{kAsEver, {"createSession", "createSessionAfterError"}}}},
    {"-[TKTokenKeyAlgorithm description]", "an object is not printed", {{kAsEver, {"exchange"}}}},
    {"-[NSError description]", "an object is not printed", {{kAsEver, {"createSessionAfterError"}}}},
    {"-[NSError userInfo]", "an error is not read", {{kAsEver, {"createSessionAfterError"}}}},
    {"+[NSError errorWithDomain:code:userInfo:]", "an error is not handed on", {{"nil", {"beginOther", "signFirst"}}, {"NO", {"finishWrong"}}}},
    {"SecCertificateCreateWithData", "a certificate is not read", {{"made", {"createToken", "token"}}}},
    {"SecCertificateCopyValues", "the key usage is not known", {{"made, certificate: label, key: label constraints", {"createToken", "token"}}}},
    {"NSUserName", "the user's name is not known", {{"nil", {"createToken", "token"}}}},
    {"NSLog", "", {{kAsEver, {"createToken", "token", "createSession", "createSessionAfterError", "supports", "sign", "signFirst", "decrypt", "exchange", "algorithmToPrint"}}}},
    {"os_log", "", {{kAsEver, {"createToken", "token", "createSession", "createSessionAfterError", "session", "begin", "operation", "finishWrong", "supports", "sign", "signFirst", "decrypt", "exchange", "authenticatedKey", "generalAuthenticate", "key"}}}},
    {"-[NSBundle localizedStringForKey:value:table:]", "a text is not translated", {{kAsEver, {"beginOther", "finishWrong"}}}},
    {"+[NSData dataWithBytes:length:]", "data are not handed on", {{"made", {"createToken", "token"}}, {"card 1, command 0, bit 40", {"begin", "operation"}}, {"nil", {"sign", "decrypt"}}}},
};
// clang-format on

class RaisingRequests : public AdapterTest {
 protected:
  RaisingRequests() {
    PlatformServices all = extensionServices();
    all.user = std::make_shared<UserOfThePlatform>(user);
    services_.reset();
    services_ = std::make_unique<ScopedExtensionServices>(std::move(all));
  }

  [[nodiscard]] std::vector<std::string> guardLines() const {
    std::vector<std::string> lines = recorder.texts();
    std::erase_if(lines, [](const std::string& line) { return line.find("[Guard-") == std::string::npos; });
    return lines;
  }

  /// How often the call has raised.
  static std::size_t actWhileRaising(World& world, const Entry& entry, const std::string& call) {
    const RaisingCall raising{call};
    entry.act(world);
    return raising.count();
  }
};

class RaisingPlatform : public RaisingRequests, public ::testing::WithParamInterface<RaisedCall> {
 protected:
  void expectOutcome(const RaisedCall& row, const Entry& entry, const std::string& outcome) {
    World world{entry.logsIn};
    recorder.clear();
    EXPECT_GT(actWhileRaising(world, entry, row.call), 0U);
    std::vector<std::string> lines;
    if (!row.line.empty())
      lines.push_back("error: [Guard-15] " + row.line +
                      ": the system raised NSInternalInconsistencyException: " + row.call +
                      "; see \"mireltoken items\"");
    EXPECT_EQ(guardLines(), lines);
    EXPECT_EQ(entry.tell(world), outcome == kAsEver ? entry.normally : outcome);
    // The next one is answered.
    world.prepareAgain();
    entry.act(world);
    if (row.keyUsage == kSigning) EXPECT_EQ(entry.tell(world), entry.normally);
  }
};

TEST_P(RaisingPlatform, BecomesALineAndTheFailureOfTheRequest) {
  setKeyUsage(GetParam().keyUsage);
  for (const auto& [outcome, names] : GetParam().outcomes) {
    for (const std::string& name : names) {
      SCOPED_TRACE(name);
      const auto entry = std::find_if(entries().begin(), entries().end(),
                                      [&](const Entry& known) { return known.name == name; });
      ASSERT_TRUE(entry != entries().end());
      @autoreleasepool {
        expectOutcome(GetParam(), *entry, outcome);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, RaisingPlatform, ::testing::ValuesIn(kCalls), [](const auto& info) {
  std::string name = info.param.call + std::to_string(info.index);
  std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
  return name;
});

TEST_F(RaisingRequests, AreAnsweredWhenNothingRaises) {
  for (const Entry& entry : entries()) {
    SCOPED_TRACE(entry.name);
    @autoreleasepool {
      World world{entry.logsIn};
      entry.act(world);
      EXPECT_EQ(entry.tell(world), entry.normally);
    }
  }
}

/// The table has every request under every call that it makes.
TEST_F(RaisingRequests, MakeNoOtherCallThanTheTableSays) {
  std::map<std::string, std::set<std::string>> made;
  for (const RaisedCall& row : kCalls) {
    for (const auto& [outcome, names] : row.outcomes) made[row.call].insert(names.begin(), names.end());
  }
  std::size_t numPairs = 0;
  for (const auto& [call, names] : made) {
    numPairs += names.size();
    SCOPED_TRACE(call);
    @autoreleasepool {
      World first{false};
      World loggedIn{true};
      for (const Entry& entry : entries()) {
        if (names.contains(entry.name)) continue;
        World& world = entry.logsIn ? loggedIn : first;
        world.prepareAgain();
        if (!entry.logsIn) [world.session setAuthState:0];
        EXPECT_EQ(actWhileRaising(world, entry, call), 0U) << entry.name;
      }
    }
  }
  EXPECT_EQ(numPairs, 192U);
}

}  // namespace
}  // namespace mirel::test
