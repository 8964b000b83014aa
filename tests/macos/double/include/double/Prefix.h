#pragma once

/// Included before every Objective-C++ source that is built with GNUstep: makes up for what its
/// Foundation and its runtime lack.

#import <Foundation/Foundation.h>

// With the runtime's own definitions the literal @YES is a number, and a nil for NSError ** no pointer.
#undef YES
#undef NO
#undef nil
#undef Nil
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr
#define Nil nullptr

// GNUstep knows the name and leaves it empty.
#undef NS_UNAVAILABLE
#define NS_UNAVAILABLE __attribute__((unavailable))

#ifndef NS_REQUIRES_SUPER
#define NS_REQUIRES_SUPER __attribute__((objc_requires_super))
#endif

// The runtime's personality routine lets no C++ exception be caught in the sources of this language,
// nor in those inline functions of which the linker keeps the copy that was compiled here.
__asm__(".set __gnu_objc_personality_v0, mirel_objcxx_personality");

// On the platform Foundation brings it along.
#import <CoreFoundation/CoreFoundation.h>
