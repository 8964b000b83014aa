#import "double/TokenSystem.h"

#import <CryptoTokenKit/CryptoTokenKit.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#import "double/Objects.h"
#import "double/Switches.h"
#include "platform/CertificateBuilder.h"

// A driver that answers what it was asked, to see that the system asks rightly.

@interface ToyDriver : TKSmartCardTokenDriver <TKSmartCardTokenDriverDelegate>
@end

@interface ToyToken : TKSmartCardToken <TKTokenDelegate>
@end

@interface ToySession : TKSmartCardTokenSession <TKTokenSessionDelegate>
@end

@interface ToyKey : TKTokenKeychainKey
@property(readonly) id certificateID;
@property(readonly) BOOL alwaysAuthenticate;
@end
@implementation ToyKey
- (id)certificateID {
  return @"certificate";
}
- (BOOL)alwaysAuthenticate {
  return YES;
}
@end

/// A driver that implements none of its delegate's methods.
@interface MuteDriver : TKSmartCardTokenDriver
@end
@implementation MuteDriver
@end

static NSError* errorWithText(NSString* text) {
  return [NSError errorWithDomain:TKErrorDomain
                             code:TKErrorCodeBadParameter
                         userInfo:@{NSLocalizedDescriptionKey : text}];
}

@implementation ToyDriver
- (instancetype)init {
  if ((self = [super init]) && !mirel::test::switches().delegatesToItself) [self setDelegate:self];
  return self;
}
- (TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
         createTokenForSmartCard:(TKSmartCard*)smartCard
                             AID:(NSData*)AID
                           error:(NSError**)error {
  NSString* const reader = [[smartCard slot] name];
  if ([reader isEqual:@"Empty"]) {
    if (error) *error = errorWithText(@"no card");
    return nil;
  }
  return [[[ToyToken alloc] initWithSmartCard:smartCard AID:AID instanceID:reader
                                  tokenDriver:driver] autorelease];
}
- (void)tokenDriver:(TKTokenDriver*)driver terminateToken:(TKToken*)token {
  [[token keychainContents] fillWithItems:@[]];
}
@end

@implementation ToyToken
- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(NSData*)AID
                       instanceID:(NSString*)instanceID
                      tokenDriver:(TKSmartCardTokenDriver*)tokenDriver {
  if (!(self = [super initWithSmartCard:smartCard AID:AID instanceID:instanceID tokenDriver:tokenDriver]))
    return nil;
  if (!mirel::test::switches().delegatesToItself) [self setDelegate:self];
  ToyKey* const key = [[[ToyKey alloc] initWithCertificate:nil objectID:@"key"] autorelease];
  [key setLabel:@"label"];
  [key setCanSign:YES];
  [key setConstraints:@{@2 : @"PIN", @3 : @NO}];
  const auto der = mirel::makeCertificate();
  const SecCertificateRef certificate =
      SecCertificateCreateWithData(nullptr, (CFDataRef)[NSData dataWithBytes:der.data() length:der.size()]);
  TKTokenKeychainCertificate* const item =
      [[[TKTokenKeychainCertificate alloc] initWithCertificate:certificate
                                                      objectID:@"certificate"] autorelease];
  CFRelease(certificate);
  [[self keychainContents] fillWithItems:@[ item, key ]];
  return self;
}
- (TKTokenSession*)token:(TKToken*)token createSessionWithError:(NSError**)error {
  if (error && *error) return nil;
  return [[[ToySession alloc] initWithToken:token] autorelease];
}
@end

@implementation ToySession
- (instancetype)initWithToken:(TKToken*)token {
  if ((self = [super initWithToken:token]) && !mirel::test::switches().delegatesToItself)
    [self setDelegate:self];
  return self;
}
- (TKTokenAuthOperation*)tokenSession:(TKTokenSession*)session
                beginAuthForOperation:(TKTokenOperation)operation
                           constraint:(TKTokenOperationConstraint)constraint
                                error:(NSError**)error {
  if (![constraint isEqual:@"PIN"]) {
    if (error) *error = errorWithText([constraint description]);
    return nil;
  }
  TKTokenSmartCardPINAuthOperation* const made =
      [[[TKTokenSmartCardPINAuthOperation alloc] init] autorelease];
  [made setSmartCard:[self smartCard]];
  [made setAPDUTemplate:[NSData dataWithBytes:"\x00\x20" length:2]];
  [[made PINFormat] setPINBitOffset:40];
  [[self smartCard] setContext:@YES];
  [[self smartCard] setSensitive:YES];
  return made;
}
- (BOOL)tokenSession:(TKTokenSession*)session
    supportsOperation:(TKTokenOperation)operation
             usingKey:(TKTokenObjectID)keyObjectID
            algorithm:(TKTokenKeyAlgorithm*)algorithm {
  return operation == TKTokenOperationSignData && [keyObjectID isEqual:@"key"] &&
         [algorithm isAlgorithm:kSecKeyAlgorithmRSASignatureRaw];
}
- (NSData*)tokenSession:(TKTokenSession*)session
               signData:(NSData*)dataToSign
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  if ([keyObjectID isEqual:@"key"]) return dataToSign;
  if (error) *error = errorWithText(keyObjectID);
  return nil;
}
@end

namespace mirel::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

SystemError badParameter(const std::string& text) {
  return {"CryptoTokenKit", TKErrorCodeBadParameter, {{kDescriptionKey, text}}};
}

/// A system in which the toy's token has a session.
class TokenSystemTest : public testing::Test {
 protected:
  void openFirstSession() {
    ASSERT_TRUE(system.offerCard("Reader A 00").succeeded);
    ASSERT_TRUE(system.openSession().succeeded);
  }

  TokenSystem system{"ToyDriver"};
};

TEST_F(TokenSystemTest, MakesTheDriverByItsName) {
  EXPECT_TRUE(system.hasDriver());
  EXPECT_FALSE(TokenSystem{"NoSuchClass"}.hasDriver());
  EXPECT_FALSE(TokenSystem{"NSObject"}.hasDriver());
}

TEST_F(TokenSystemTest, OffersACardOfThatReader) {
  EXPECT_EQ(system.offerCard("Reader A 00", ErrorPointer::kEmpty, ByteVector{1, 2}),
            Outcome{.succeeded = true});
  EXPECT_EQ(system.instanceID(), "Reader A 00");
  EXPECT_TRUE(([[system.token() AID] isEqual:[NSData dataWithBytes:"\1\2" length:2]]));
}

TEST_F(TokenSystemTest, KeepsEveryCharacterOfAText) {
  const std::string reader{"R\0\xC3\xA9", 4};
  ASSERT_TRUE(system.offerCard(reader).succeeded);
  EXPECT_EQ(system.instanceID(), reader);
}

TEST_F(TokenSystemTest, TellsWhatTheDriverLeftBehindTheErrorPointer) {
  EXPECT_EQ(system.offerCard("Empty"), (Outcome{.error = badParameter("no card")}));
  EXPECT_EQ(system.offerCard("Empty", ErrorPointer::kNone), Outcome{});
  EXPECT_EQ(system.token(), nil);
}

TEST_F(TokenSystemTest, ADriverWithoutTheMethodFailsWithoutAnError) {
  TokenSystem other{"MuteDriver"};
  EXPECT_EQ(other.offerCard("Reader"), Outcome{});
}

TEST_F(TokenSystemTest, ReadsTheItems) {
  ASSERT_TRUE(system.offerCard("Reader").succeeded);
  PublishedItem certificate{.className = "TKTokenKeychainCertificate", .objectID = "certificate"};
  certificate.constraints = {{1, "YES"}, {2, "NO"}, {3, "NO"}, {4, "NO"}};
  PublishedItem key{.className = "ToyKey", .isKey = true, .objectID = "key"};
  key.label = "label";
  key.constraints = {{2, "PIN"}, {3, "NO"}};
  key.canSign = true;
  key.certificateID = "certificate";
  key.alwaysAuthenticate = true;
  EXPECT_THAT(system.items(), ElementsAre(certificate, key));
  EXPECT_EQ(system.numFills(), 1U);
}

TEST_F(TokenSystemTest, OpensSessionsWithTheErrorPointerThatIsAskedFor) {
  ASSERT_TRUE(system.offerCard("Reader").succeeded);
  EXPECT_EQ(system.openSession(ErrorPointer::kFilled), (Outcome{.error = SystemError{"earlier", 1}}));
  EXPECT_TRUE(system.openSession(ErrorPointer::kNone).succeeded);
  EXPECT_TRUE(system.openSession().succeeded);
  EXPECT_EQ(system.numSessions(), 2U);
  system.closeSession(0);
  EXPECT_EQ(system.session(0), nil);
  EXPECT_NE(system.session(1), nil);
}

TEST_F(TokenSystemTest, AsksForSupport) {
  openFirstSession();
  EXPECT_TRUE(system.supports(0, 2, "key", "RSASignatureRaw"));
  EXPECT_TRUE(system.supports(0, 2, "key", "kSecKeyAlgorithmRSASignatureRaw"));
  EXPECT_FALSE(system.supports(0, 2, "key", "RSAEncryptionRaw"));
  EXPECT_FALSE(system.supports(0, 3, "key", "RSASignatureRaw"));
  EXPECT_FALSE(system.supports(0, 2, "other", "RSASignatureRaw"));
}

TEST_F(TokenSystemTest, AuthenticatesByPin) {
  openFirstSession();
  EXPECT_EQ(system.pinRequest(), std::nullopt);
  EXPECT_TRUE(system.beginAuth(0, 2, "key").succeeded);
  system.enterPin("1234");

  const auto request = system.pinRequest();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->className, "TKTokenSmartCardPINAuthOperation");
  EXPECT_THAT(request->apduTemplate, Optional(ByteVector{0x00, 0x20}));
  EXPECT_EQ(request->pinBitOffset, 40);
  EXPECT_EQ(request->minPinLength, 4);
  EXPECT_EQ(request->maxPinLength, 8);
  EXPECT_THAT(request->readerName, Optional(std::string{"Reader A 00"}));
  EXPECT_TRUE(request->hasPin);
  EXPECT_EQ(system.finishAuth(), Outcome{.succeeded = true});
  EXPECT_EQ(system.authOperation(), nil);
}

TEST_F(TokenSystemTest, HandsOverTheConstraintOfTheKeyOrAnother) {
  openFirstSession();
  EXPECT_EQ(system.beginAuth(0, 2, "key", "FACE"), (Outcome{.error = badParameter("FACE")}));
  EXPECT_EQ(system.beginAuth(0, 3, "key").error->code, TKErrorCodeBadParameter);
  EXPECT_TRUE(system.beginAuth(0, 3, "key", "PIN").succeeded);
}

TEST_F(TokenSystemTest, TellsTheMarksOfTheCardUntilItIsReset) {
  openFirstSession();
  EXPECT_EQ(system.cardContext(0), std::nullopt);
  EXPECT_FALSE(system.cardIsSensitive(0));
  ASSERT_TRUE(system.beginAuth(0, 2, "key").succeeded);
  EXPECT_EQ(system.cardContext(0), true);
  EXPECT_TRUE(system.cardIsSensitive(0));
  system.resetCard();
  EXPECT_EQ(system.cardContext(0), std::nullopt);
}

TEST_F(TokenSystemTest, SessionsHaveConnectionsOfTheirOwn) {
  openFirstSession();
  ASSERT_TRUE(system.openSession().succeeded);
  ASSERT_TRUE(system.beginAuth(0, 2, "key").succeeded);
  EXPECT_EQ(system.cardContext(1), std::nullopt);
}

TEST_F(TokenSystemTest, SignsAndTellsTheError) {
  openFirstSession();
  EXPECT_EQ(system.sign(0, {1, 2, 3}, "key", "RSASignatureRaw"),
            (Outcome{.succeeded = true, .data = ByteVector{1, 2, 3}}));
  EXPECT_EQ(system.sign(0, {}, "key", "RSASignatureRaw"), (Outcome{.succeeded = true, .data = ByteVector{}}));
  EXPECT_EQ(system.sign(0, {1}, "other", "RSASignatureRaw"), (Outcome{.error = badParameter("other")}));
  EXPECT_EQ(system.sign(0, {1}, "other", "RSASignatureRaw", ErrorPointer::kNone), Outcome{});
}

TEST_F(TokenSystemTest, MethodsThatTheSessionLacksFailWithoutAnError) {
  openFirstSession();
  EXPECT_EQ(system.decrypt(0, {1}, "key", "RSAEncryptionRaw"), Outcome{});
  EXPECT_EQ(system.exchange(0, {1}, "key", "ECDHKeyExchangeStandard"), Outcome{});
}

TEST_F(TokenSystemTest, AsksNobodyButTheDelegates) {
  openFirstSession();
  [(TKTokenSession*)system.session(0) setDelegate:nil];
  EXPECT_FALSE(system.supports(0, 2, "key", "RSASignatureRaw"));
  EXPECT_EQ(system.beginAuth(0, 2, "key"), Outcome{});
  EXPECT_EQ(system.sign(0, {1}, "key", "RSASignatureRaw"), Outcome{});
  [(TKToken*)system.token() setDelegate:nil];
  EXPECT_EQ(system.openSession(), Outcome{});
  [(TKTokenDriver*)system.driver() setDelegate:nil];
  EXPECT_EQ(system.offerCard("Reader"), Outcome{});
}

TEST_F(TokenSystemTest, LeavesNothingBehind) {
  openFirstSession();
  ASSERT_TRUE(system.beginAuth(0, 2, "key").succeeded);
  system.dropEverything();
  EXPECT_FALSE(system.hasDriver());
  EXPECT_THAT(livingObjects(), IsEmpty());
}

TEST(TokenSystemSwitches, DelegatesCanBeTheObjectsThemselves) {
  ScopedSwitches switches;
  switches->delegatesToItself = true;
  TokenSystem system{"ToyDriver"};
  EXPECT_TRUE(system.offerCard("Reader").succeeded);
  EXPECT_TRUE(system.openSession().succeeded);
  EXPECT_TRUE(system.supports(0, 2, "key", "RSASignatureRaw"));
}

TEST(TokenSystemSwitches, BaseInitialisersCanRefuse) {
  ScopedSwitches switches;
  TokenSystem system{"ToyDriver"};
  switches->refusesTokens = true;
  EXPECT_FALSE(system.offerCard("Reader").succeeded);
  switches->refusesTokens = false;
  switches->refusesSessions = true;
  EXPECT_TRUE(system.offerCard("Reader").succeeded);
  EXPECT_FALSE(system.openSession().succeeded);
}

TEST(TokenSystemSwitches, TokensCanLackContentsAndSessionsACard) {
  ScopedSwitches switches;
  switches->withoutContents = true;
  switches->withoutCard = true;
  TokenSystem system{"ToyDriver"};
  ASSERT_TRUE(system.offerCard("Reader").succeeded);
  EXPECT_THAT(system.items(), IsEmpty());
  ASSERT_TRUE(system.openSession().succeeded);
  EXPECT_EQ([system.session(0) smartCard], nil);
}

TEST(TokenSystemDeathTest, UnknownNamesEndTheProgram) {
  TokenSystem system{"ToyDriver"};
  ASSERT_TRUE(system.offerCard("Reader").succeeded);
  ASSERT_TRUE(system.openSession().succeeded);
  EXPECT_DEATH((void)system.supports(0, 2, "key", "Nonsense"), "unknown algorithm \"Nonsense\"");
  EXPECT_DEATH((void)system.supports(7, 2, "key", "RSASignatureRaw"), "unknown session \"7\"");
}

}  // namespace
}  // namespace mirel::test
