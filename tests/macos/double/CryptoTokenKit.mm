#import <CryptoTokenKit/CryptoTokenKit.h>

#include <cstdio>
#include <cstdlib>

#import "Objects.h"
#import "Switches.h"

using namespace mirel::test;

NSString* const TKErrorDomain = @"CryptoTokenKit";

/// The one item of a class with that identifier; otherwise nil and an error.
static id itemFor(NSArray* items, Class type, TKTokenObjectID objectID, NSError** error) {
  for (TKTokenKeychainItem* item in items) {
    if ([item isKindOfClass:type] && [[item objectID] isEqual:objectID]) return [[item retain] autorelease];
  }
  if (!objectID) {
    (void)std::fprintf(stderr, "an item is looked for without an identifier\n");
    std::abort();
  }
  NSDictionary* const more = switches().explainsMissingKeys ? @{@"Searched" : objectID} : nil;
  if (error) *error = [NSError errorWithDomain:TKErrorDomain code:TKErrorCodeObjectNotFound userInfo:more];
  return nil;
}

/// What a base initialiser ends with that refuses.
static id refused(id object) {
  [object release];
  return nil;
}

/// What a base initialiser goes on with: the object itself, or another one in its place.
static id initialised(id object) {
  if (!switches().replacesObjects) return object;
  const id other = [[object class] alloc];
  [object release];
  return other;
}

static TKTokenKeychainKey* plainCopyOf(TKTokenKeychainKey* key) {
  TKTokenKeychainKey* const copy =
      [[[TKTokenKeychainKey alloc] initWithCertificate:nullptr objectID:[key objectID]] autorelease];
  [copy setLabel:[key label]];
  [copy setConstraints:[key constraints]];
  [copy setCanSign:[key canSign]];
  [copy setCanDecrypt:[key canDecrypt]];
  [copy setCanPerformKeyExchange:[key canPerformKeyExchange]];
  [copy setSuitableForLogin:[key isSuitableForLogin]];
  return copy;
}

// ---- Reader and card ----

@implementation TKSmartCardSlot
@synthesize name = _name;
- (instancetype)initWithName:(NSString*)name {
  if ((self = [super init])) _name = [name copy];
  return self;
}
- (void)dealloc {
  [_name release];
  [super dealloc];
}
- (TKSmartCard*)makeSmartCard {
  return [[[TKSmartCard alloc] initWithSlot:self] autorelease];
}
@end

@implementation TKSmartCard
@synthesize slot = _slot, sensitive = _sensitive, context = _context, cla = _cla;
- (instancetype)initWithSlot:(TKSmartCardSlot*)slot {
  if ((self = [super init])) _slot = [slot retain];
  return self;
}
- (void)dealloc {
  [_slot release];
  [_context release];
  [super dealloc];
}
- (TKSmartCard*)anotherConnection {
  return [_slot makeSmartCard];
}
@end

@implementation TKSmartCardPINFormat
@synthesize minPINLength = _minPINLength, maxPINLength = _maxPINLength, PINBitOffset = _PINBitOffset;
- (instancetype)init {
  if ((self = [super init])) {
    _minPINLength = 4;
    _maxPINLength = 8;
  }
  return self;
}
@end

// ---- Driver ----

@implementation TKTokenDriver
@synthesize delegate = _delegate;
- (instancetype)init {
  if ((self = [super init]) && switches().delegatesToItself) _delegate = (id)self;
  return self;
}
@end

@implementation TKSmartCardTokenDriver
@end

// ---- Keychain contents ----

@implementation TKTokenKeychainItem
@synthesize objectID = _objectID, label = _label, constraints = _constraints;
- (instancetype)initWithObjectID:(TKTokenObjectID)objectID {
  self = initialised(self);
  if ((self = [super init])) _objectID = [objectID copy];
  return self;
}
- (void)dealloc {
  [_objectID release];
  [_label release];
  [_constraints release];
  [super dealloc];
}
@end

@implementation TKTokenKeychainCertificate
- (instancetype)initWithCertificate:(SecCertificateRef)certificateRef objectID:(TKTokenObjectID)objectID {
  if (!(self = [super initWithObjectID:objectID])) return nil;
  if (switches().refusesCertificateItems || !certificateRef) return refused(self);
  return self;
}
@end

@implementation TKTokenKeychainKey
@synthesize canDecrypt = _canDecrypt, canSign = _canSign, canPerformKeyExchange = _canPerformKeyExchange,
            suitableForLogin = _suitableForLogin;
- (instancetype)initWithCertificate:(SecCertificateRef)certificateRef objectID:(TKTokenObjectID)objectID {
  if (!(self = [super initWithObjectID:objectID])) return nil;
  DoubleCertificate* const certificate = (DoubleCertificate*)certificateRef;
  if (switches().refusesKeyItems || (certificate && ![certificate publicKey])) return refused(self);
  return self;
}
@end

@implementation TKTokenKeychainContents
- (instancetype)initEmpty {
  if ((self = [super init])) _items = [[NSArray alloc] init];
  return self;
}
- (void)dealloc {
  [_items release];
  [super dealloc];
}
- (NSArray*)items {
  return [[_items copy] autorelease];
}
- (NSUInteger)numFills {
  return _numFills;
}
- (void)fillWithItems:(NSArray*)items {
  NSArray* const copy = [items copy];
  [_items release];
  _items = copy;
  ++_numFills;
  switches().whenContentsAreFilled();
}
- (TKTokenKeychainKey*)keyForObjectID:(TKTokenObjectID)objectID error:(NSError**)error {
  TKTokenKeychainKey* const key = itemFor(_items, [TKTokenKeychainKey class], objectID, error);
  return key && switches().copiesKeys ? plainCopyOf(key) : key;
}
@end

// ---- Token ----

@implementation TKToken
@synthesize tokenDriver = _tokenDriver, delegate = _delegate, keychainContents = _keychainContents;
- (instancetype)initWithTokenDriver:(TKTokenDriver*)tokenDriver instanceID:(TKTokenInstanceID)instanceID {
  self = initialised(self);
  if (!(self = [super init])) return nil;
  switches().whenTokenIsInitialised(self);
  if (switches().refusesTokens) return refused(self);
  _tokenDriver = [tokenDriver retain];
  _instanceID = [instanceID copy];
  if (!switches().withoutContents) _keychainContents = [[TKTokenKeychainContents alloc] initEmpty];
  if (switches().delegatesToItself) _delegate = (id)self;
  return self;
}
- (void)dealloc {
  [_tokenDriver release];
  [_instanceID release];
  [_keychainContents release];
  [super dealloc];
}
- (TKTokenInstanceID)instanceID {
  return _instanceID;
}
@end

@implementation TKSmartCardToken
@synthesize AID = _AID;
- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(NSData*)AID
                       instanceID:(NSString*)instanceID
                      tokenDriver:(TKSmartCardTokenDriver*)tokenDriver {
  if ((self = [super initWithTokenDriver:tokenDriver instanceID:instanceID])) {
    _smartCard = [smartCard retain];
    _AID = [AID copy];
  }
  return self;
}
- (void)dealloc {
  [_smartCard release];
  [_AID release];
  [super dealloc];
}
- (TKSmartCard*)smartCard {
  return _smartCard;
}
@end

// ---- Session ----

@implementation TKTokenKeyAlgorithm
+ (instancetype)algorithmWithTarget:(SecKeyAlgorithm)target {
  TKTokenKeyAlgorithm* const made = [[[self alloc] initForDouble] autorelease];
  made->_target = [(NSString*)target copy];
  return made;
}
- (instancetype)initForDouble {
  return [super init];
}
- (void)dealloc {
  [_target release];
  [super dealloc];
}
- (BOOL)isAlgorithm:(SecKeyAlgorithm)algorithm {
  return [_target isEqual:(NSString*)algorithm];
}
@end

@implementation TKTokenKeyExchangeParameters
@end

@implementation TKTokenAuthOperation
- (BOOL)finishWithError:(NSError**)error {
  return YES;
}
@end

@implementation TKTokenSmartCardPINAuthOperation
@synthesize PINFormat = _PINFormat, APDUTemplate = _APDUTemplate, smartCard = _smartCard, PIN = _PIN;
- (instancetype)init {
  self = initialised(self);
  if (!(self = [super init])) return nil;
  if (switches().refusesPinOperations) return refused(self);
  _PINFormat = [[TKSmartCardPINFormat alloc] init];
  return self;
}
- (void)dealloc {
  [_PINFormat release];
  [_APDUTemplate release];
  [_smartCard release];
  [_PIN release];
  [super dealloc];
}
@end

@implementation TKTokenSession
@synthesize token = _token, delegate = _delegate;
- (instancetype)initWithToken:(TKToken*)token {
  self = initialised(self);
  if (!(self = [super init])) return nil;
  switches().whenSessionIsInitialised(self);
  if (switches().refusesSessions) return refused(self);
  _token = [token retain];
  if (switches().delegatesToItself) _delegate = (id)self;
  return self;
}
- (void)dealloc {
  [_token release];
  [super dealloc];
}
@end

@implementation TKSmartCardTokenSession
@synthesize smartCard = _smartCard;
- (instancetype)initWithToken:(TKToken*)token {
  if ((self = [super initWithToken:token]) && !switches().withoutCard) {
    // A connection of its own, to the card that the token was made for.
    _smartCard = [[[(TKSmartCardToken*)token smartCard] anotherConnection] retain];
  }
  return self;
}
- (void)dealloc {
  [_smartCard release];
  [super dealloc];
}
@end
