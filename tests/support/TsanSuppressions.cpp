// Read by the thread sanitizer's runtime from the program itself, so that the agents which tests start have
// it too (ThreadSanitizerSuppressions in the sanitizers' documentation).
//
// libsystemd keeps the last hash key that it made in a static variable without a lock. Two threads that use
// two buses may make one at once; each copies 16 random bytes for a table of its own, and whichever they are
// will do.
extern "C" const char*
__tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier): the runtime's name
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
    return "race:getrandom\n";
}
