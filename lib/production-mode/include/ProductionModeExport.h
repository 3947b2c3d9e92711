#pragma once
// The ABI of libproduction-mode. The library is built with hidden visibility, so
// only what its public headers mark PM_EXPORT is visible to programs and plug-ins,
// less the private helpers of those classes (PM_HIDDEN); everything else stays
// internal and may change without notice.

#define PM_EXPORT __attribute__((visibility("default")))
/// On a private member function of an exported class: the helper stays internal.
#define PM_HIDDEN __attribute__((visibility("hidden")))
