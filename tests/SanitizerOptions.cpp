// Linked into every test program. Out-of-memory tests need the sanitizer's allocator to
// return null as the plain one does, so that the library's own std::bad_alloc is what
// they see. (UndefinedBehaviorSanitizer needs nothing here: the sanitizer build does not
// recover from its reports.)
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
