// What becomes of a daemon thread that is inside a compiled module while the interpreter ends.
//
// As it comes back from Python code, or asks for the interpreter's lock, CPython 3.13 ends it by pthread_exit, which
// unwinds its stack: destructors would drop references without the lock, and a catch-all or a noexcept function ends
// the process by std::terminate. Here such a thread sleeps until the process is gone, as CPython 3.14 has it do. The
// unwinder asks the "personality" of each frame that has something to tidy; the linker puts this one before the
// language's own in each extension (--wrap in CMakeLists.txt), so that the innermost such frame stops it. Nothing is
// paid before something is thrown.
#include <unwind.h>

#include <unistd.h>

extern "C" {

_Unwind_Reason_Code __real___gxx_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class language,
                                                _Unwind_Exception *exception, _Unwind_Context *frame);

_Unwind_Reason_Code __wrap___gxx_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class language,
                                                _Unwind_Exception *exception, _Unwind_Context *frame) {
    while (actions & _UA_FORCE_UNWIND) // pthread_exit or pthread_cancel, never a throw
        pause();
    return __real___gxx_personality_v0(version, actions, language, exception, frame);
}
}
