/* What Header_test.c offers to the C++ test beside it. */
#ifndef TESTS_COREFOUNDATION_HEADER_TEST_H
#define TESTS_COREFOUNDATION_HEADER_TEST_H

#include <CoreFoundation/CoreFoundation.h>

CF_EXTERN_C_BEGIN
CFStringRef ConstantFromC(void);
CFIndex LengthFromC(CFStringRef string);
CFTypeID RegisterFromC(void);
CFTypeRef CreateFromC(CFTypeID typeID);
CF_EXTERN_C_END

#endif
