#import "TokenSystem.h"

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <gtest/gtest-printers.h>

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string_view>
#include <utility>

#import "Objects.h"
#import "Switches.h"
#import "Utf8.h"

namespace mirel::test {
namespace {

/// Keeps one object.
class Kept {
 public:
  explicit Kept(id object = nil) : object_{[object retain]} {}
  Kept(const Kept&) = delete;
  Kept(Kept&& other) noexcept : object_{std::exchange(other.object_, nil)} {}
  Kept& operator=(Kept other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Kept() { [object_ release]; }
  [[nodiscard]] id get() const { return object_; }

 private:
  id object_;
};

[[noreturn]] void refuse(const char* what, const std::string& value) {
  (void)std::fprintf(stderr, "the test asks for the unknown %s \"%s\"\n", what, value.c_str());
  std::abort();
}

std::optional<std::string> textOrNothing(id object) {
  return object ? std::optional{utf8Of(object)} : std::nullopt;
}

NSString* string(const std::string& utf8) {
  NSString* const made = [[[NSString alloc] initWithBytes:utf8.data()
                                                   length:utf8.size()
                                                 encoding:NSUTF8StringEncoding] autorelease];
  if (!made) refuse("encoding of", utf8);
  return made;
}

NSData* dataOf(const ByteVector& bytes) { return [NSData dataWithBytes:bytes.data() length:bytes.size()]; }

std::optional<ByteVector> bytesOf(NSData* data) {
  if (!data) return std::nullopt;
  const auto* const first = static_cast<const std::uint8_t*>([data bytes]);
  return ByteVector(first, first + [data length]);
}

bool isBoolean(id value) {
  return value == [NSNumber numberWithBool:YES] || value == [NSNumber numberWithBool:NO];
}

std::string constraintText(id value) {
  if (isBoolean(value)) return [value boolValue] ? "YES" : "NO";
  return utf8Of(value);
}

id constraintOf(const std::string& name) {
  if (name == "YES") return @YES;
  if (name == "NO") return @NO;
  return string(name);
}

TKTokenKeyAlgorithm* algorithmNamed(std::string name) {
  constexpr std::string_view kPrefix = "kSecKeyAlgorithm";
  if (name.starts_with(kPrefix)) name.erase(0, kPrefix.size());
#define DOUBLE_IF_NAMED(constant) \
  if (name == #constant) return [TKTokenKeyAlgorithm algorithmWithTarget:kSecKeyAlgorithm##constant];
  DOUBLE_SEC_KEY_ALGORITHMS(DOUBLE_IF_NAMED)
#undef DOUBLE_IF_NAMED
  refuse("algorithm", name);
}

/// Where a callee puts its error.
class ErrorPlace {
 public:
  explicit ErrorPlace(ErrorPointer pointer) : isGiven_{pointer != ErrorPointer::kNone} {
    if (pointer == ErrorPointer::kFilled) error_ = [NSError errorWithDomain:@"earlier" code:1 userInfo:nil];
  }
  [[nodiscard]] NSError** pointer() { return isGiven_ ? &error_ : nullptr; }
  [[nodiscard]] std::optional<SystemError> error() const {
    if (!error_) return std::nullopt;
    SystemError error{utf8Of([error_ domain]), [error_ code]};
    for (id key in [error_ userInfo]) {
      const bool isDescription = [key isEqual:NSLocalizedDescriptionKey];
      error.userInfo[isDescription ? kDescriptionKey : utf8Of(key)] =
          utf8Of([[error_ userInfo] objectForKey:key]);
    }
    return error;
  }
  [[nodiscard]] Outcome outcome(bool succeeded, NSData* data = nil) const {
    return {succeeded, bytesOf(data), error()};
  }

 private:
  bool isGiven_;
  NSError* error_ = nil;
};

PublishedItem published(TKTokenKeychainItem* item) {
  PublishedItem seen{utf8Of(NSStringFromClass([item class])), false, utf8Of([item objectID])};
  seen.label = textOrNothing([item label]);
  if (NSDictionary* const constraints = [item constraints]) {
    seen.constraints.emplace();
    for (NSNumber* operation in constraints) {
      (*seen.constraints)[[operation longValue]] = constraintText([constraints objectForKey:operation]);
    }
  }
  if (![item isKindOfClass:[TKTokenKeychainKey class]]) return seen;
  TKTokenKeychainKey* const key = (TKTokenKeychainKey*)item;
  seen.isKey = true;
  seen.canSign = [key canSign];
  seen.canDecrypt = [key canDecrypt];
  seen.canPerformKeyExchange = [key canPerformKeyExchange];
  seen.suitableForLogin = [key isSuitableForLogin];
  if ([key respondsToSelector:@selector(certificateID)]) {
    seen.certificateID = textOrNothing([key valueForKey:@"certificateID"]);
  }
  if ([key respondsToSelector:@selector(alwaysAuthenticate)]) {
    seen.alwaysAuthenticate = [[key valueForKey:@"alwaysAuthenticate"] boolValue];
  }
  return seen;
}

}  // namespace

struct TokenSystem::State {
  Kept driver;
  Kept card;
  Kept token;
  std::vector<Kept> sessions;
  Kept operation;

  [[nodiscard]] TKSmartCardTokenSession* session(SessionNumber number) const {
    if (number >= sessions.size() || !sessions[number].get()) refuse("session", std::to_string(number));
    return sessions[number].get();
  }

  /// What the session's delegate answers.
  template <typename Ask>
  Outcome answerOf(SessionNumber number, ErrorPointer pointer, Ask&& ask) const {
    @autoreleasepool {
      ErrorPlace place{pointer};
      NSData* const answer = ask(session(number), [session(number) delegate], place.pointer());
      return place.outcome(answer != nil, answer);
    }
  }
};

TokenSystem::TokenSystem(const std::string& driverClass) : state_{std::make_unique<State>()} {
  @autoreleasepool {
    Class const type = NSClassFromString(string(driverClass));
    if (![type isSubclassOfClass:[TKSmartCardTokenDriver class]]) return;
    state_->driver = Kept{[[[type alloc] init] autorelease]};
  }
}

TokenSystem::~TokenSystem() { removeCard(); }

bool TokenSystem::hasDriver() const { return driver() != nil; }

Outcome TokenSystem::offerCard(const std::string& readerName, ErrorPointer pointer,
                               const std::optional<ByteVector>& aid) {
  @autoreleasepool {
    removeCard();
    ErrorPlace place{pointer};
    TKSmartCardSlot* const slot = [[[TKSmartCardSlot alloc] initWithName:string(readerName)] autorelease];
    state_->card = Kept{[slot makeSmartCard]};
    const id delegate = [(TKTokenDriver*)driver() delegate];
    state_->token = Kept{[delegate tokenDriver:driver()
                       createTokenForSmartCard:state_->card.get()
                                           AID:aid ? dataOf(*aid) : nil
                                         error:place.pointer()]};
    return place.outcome(token() != nil);
  }
}

void TokenSystem::removeCard() {
  @autoreleasepool {
    state_->operation = Kept{};
    state_->sessions.clear();
    state_->token = Kept{};
    state_->card = Kept{};
  }
}

std::string TokenSystem::instanceID() const {
  @autoreleasepool {
    return utf8Of([(TKToken*)token() instanceID]);
  }
}

std::size_t TokenSystem::numFills() const { return [[(TKToken*)token() keychainContents] numFills]; }

std::vector<PublishedItem> TokenSystem::items() const {
  @autoreleasepool {
    std::vector<PublishedItem> items;
    for (TKTokenKeychainItem* item in [[(TKToken*)token() keychainContents] items])
      items.push_back(published(item));
    return items;
  }
}

Outcome TokenSystem::openSession(ErrorPointer pointer) {
  @autoreleasepool {
    ErrorPlace place{pointer};
    const id made = [[(TKToken*)token() delegate] token:token() createSessionWithError:place.pointer()];
    if (made) state_->sessions.emplace_back(made);
    return place.outcome(made != nil);
  }
}

bool TokenSystem::supports(SessionNumber number, long operation, const std::string& key,
                           const std::string& algorithm) {
  @autoreleasepool {
    TKTokenSession* const session = state_->session(number);
    return [[session delegate] tokenSession:session
                          supportsOperation:(TKTokenOperation)operation
                                   usingKey:string(key)
                                  algorithm:algorithmNamed(algorithm)];
  }
}

Outcome TokenSystem::beginAuth(SessionNumber number, long operation, const std::string& key,
                               const std::optional<std::string>& constraint, ErrorPointer pointer) {
  @autoreleasepool {
    ErrorPlace place{pointer};
    TKTokenSession* const session = state_->session(number);
    TKTokenKeychainKey* const item = [[(TKToken*)token() keychainContents] keyForObjectID:string(key)
                                                                                    error:nil];
    const id asked = constraint ? constraintOf(*constraint) : [[item constraints] objectForKey:@(operation)];
    state_->operation = Kept{[[session delegate] tokenSession:session
                                        beginAuthForOperation:(TKTokenOperation)operation
                                                   constraint:asked
                                                        error:place.pointer()]};
    return place.outcome(authOperation() != nil);
  }
}

std::optional<PinRequest> TokenSystem::pinRequest() const {
  @autoreleasepool {
    if (!authOperation()) return std::nullopt;
    PinRequest request{utf8Of(NSStringFromClass([authOperation() class]))};
    if (![authOperation() isKindOfClass:[TKTokenSmartCardPINAuthOperation class]]) return request;
    TKTokenSmartCardPINAuthOperation* const operation = authOperation();
    request.apduTemplate = bytesOf([operation APDUTemplate]);
    request.pinBitOffset = [[operation PINFormat] PINBitOffset];
    request.minPinLength = [[operation PINFormat] minPINLength];
    request.maxPinLength = [[operation PINFormat] maxPINLength];
    request.readerName = textOrNothing([[[operation smartCard] slot] name]);
    return request;
  }
}

void TokenSystem::enterPin(const std::optional<std::string>& pin) {
  @autoreleasepool {
    if (![authOperation() isKindOfClass:[TKTokenSmartCardPINAuthOperation class]]) return;
    TKTokenSmartCardPINAuthOperation* const operation = authOperation();
    const bool sent = switches().sendsPinsItself && [operation APDUTemplate];
    [operation setPIN:pin && !sent ? string(*pin) : nil];
  }
}

Outcome TokenSystem::finishAuth(ErrorPointer pointer) {
  @autoreleasepool {
    ErrorPlace place{pointer};
    const bool succeeded = [(TKTokenAuthOperation*)authOperation() finishWithError:place.pointer()];
    state_->operation = Kept{};
    return place.outcome(succeeded);
  }
}

Outcome TokenSystem::sign(SessionNumber number, const ByteVector& data, const std::string& key,
                          const std::string& algorithm, ErrorPointer pointer) {
  return state_->answerOf(number, pointer, [&](TKTokenSession* session, id asked, NSError** error) {
    return [asked tokenSession:session
                      signData:dataOf(data)
                      usingKey:string(key)
                     algorithm:algorithmNamed(algorithm)
                         error:error];
  });
}

Outcome TokenSystem::decrypt(SessionNumber number, const ByteVector& data, const std::string& key,
                             const std::string& algorithm, ErrorPointer pointer) {
  return state_->answerOf(number, pointer, [&](TKTokenSession* session, id asked, NSError** error) {
    return [asked tokenSession:session
                   decryptData:dataOf(data)
                      usingKey:string(key)
                     algorithm:algorithmNamed(algorithm)
                         error:error];
  });
}

Outcome TokenSystem::exchange(SessionNumber number, const ByteVector& publicKey, const std::string& key,
                              const std::string& algorithm, ErrorPointer pointer) {
  return state_->answerOf(number, pointer, [&](TKTokenSession* session, id asked, NSError** error) {
    return [asked tokenSession:session
        performKeyExchangeWithPublicKey:dataOf(publicKey)
                               usingKey:string(key)
                              algorithm:algorithmNamed(algorithm)
                             parameters:[[[TKTokenKeyExchangeParameters alloc] init] autorelease]
                                  error:error];
  });
}

std::optional<bool> TokenSystem::cardContext(SessionNumber number) const {
  @autoreleasepool {
    const id context = [[state_->session(number) smartCard] context];
    return context ? std::optional<bool>{[context boolValue]} : std::nullopt;
  }
}

bool TokenSystem::cardIsSensitive(SessionNumber number) const {
  return [[state_->session(number) smartCard] sensitive];
}

void TokenSystem::resetCard() {
  @autoreleasepool {
    [(TKSmartCard*)state_->card.get() setContext:nil];
    for (const Kept& session : state_->sessions)
      [[(TKSmartCardTokenSession*)session.get() smartCard] setContext:nil];
  }
}

id TokenSystem::driver() const { return state_->driver.get(); }
id TokenSystem::token() const { return state_->token.get(); }
id TokenSystem::session(SessionNumber number) const {
  return number < state_->sessions.size() ? state_->sessions[number].get() : nil;
}
id TokenSystem::authOperation() const { return state_->operation.get(); }

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << (outcome.succeeded ? "succeeded" : "failed");
  if (outcome.data) *out << ", data " << testing::PrintToString(*outcome.data);
  if (!outcome.error) return;
  *out << ", error " << outcome.error->domain << ' ' << outcome.error->code << ' '
       << testing::PrintToString(outcome.error->userInfo);
}

void PrintTo(const PublishedItem& item, std::ostream* out) {
  *out << item.className << ' ' << item.objectID << ", label " << testing::PrintToString(item.label)
       << ", constraints " << testing::PrintToString(item.constraints);
  if (!item.isKey) return;
  *out << ", can" << (item.canSign ? " sign" : "") << (item.canDecrypt ? " decrypt" : "")
       << (item.canPerformKeyExchange ? " exchange" : "") << (item.suitableForLogin ? " log in" : "")
       << ", certificateID " << testing::PrintToString(item.certificateID) << ", alwaysAuthenticate "
       << testing::PrintToString(item.alwaysAuthenticate);
}

std::vector<std::string> algorithmNames() {
#define DOUBLE_NAME(constant) #constant,
  return {DOUBLE_SEC_KEY_ALGORITHMS(DOUBLE_NAME)};
#undef DOUBLE_NAME
}

}  // namespace mirel::test
