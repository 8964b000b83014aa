/// The personality routine of Objective-C++ code: picks the routine that knows the language in which the
/// exception was thrown.

#include <unwind.h>

#include <cstdint>

extern "C" {

_Unwind_Reason_Code __gxx_personality_v0(int, _Unwind_Action, _Unwind_Exception_Class, _Unwind_Exception*,
                                         _Unwind_Context*);
_Unwind_Reason_Code __gnu_objc_personality_v0(int, _Unwind_Action, _Unwind_Exception_Class,
                                              _Unwind_Exception*, _Unwind_Context*);

_Unwind_Reason_Code mirel_objcxx_personality(int version, _Unwind_Action actions,
                                             _Unwind_Exception_Class language, _Unwind_Exception* exception,
                                             _Unwind_Context* context) {
  constexpr std::uint64_t kObjectiveC = 0x474E55434F424A43;  // "GNUCOBJC"
  const auto routine = language == kObjectiveC ? &__gnu_objc_personality_v0 : &__gxx_personality_v0;
  return routine(version, actions, language, exception, context);
}

}  // extern "C"
