// Objects of a thread are destroyed when it ends, and the memory that they lie in is freed. With this compiler's
// libraries each of the two is a destructor of a key, and keys come in the order in which a process has asked for them.
// The first use of any such memory asks for its key, so whoever destroys objects would come second and find memory that
// is free. All libraries of ours load this one, so here it can ask first.
#include <cxxabi.h>

namespace {

void DestroyNothing(void* /*object*/) {}

[[maybe_unused]] const int g_asked = __cxxabiv1::__cxa_thread_atexit(&DestroyNothing, nullptr, nullptr);

}  // namespace
