/// Options of the sanitizers that every sanitized program here needs; part of sanitized builds alone.

extern "C" {

/// A worker that is cancelled unwinds frames that the sanitizer has marked on the thread's stack, and it ends the
/// process over such marks when that thread ends; kept aside of the stack they do no harm.
__attribute__((visibility("default"))) const char *__asan_default_options() {
    return "detect_stack_use_after_return=1";
}
}
