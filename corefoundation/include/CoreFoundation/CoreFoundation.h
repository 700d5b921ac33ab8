/* CoreFoundation.h: everything but CFRuntime.h, which only authors of types need. */
#ifndef COREFOUNDATION_COREFOUNDATION_H
#define COREFOUNDATION_COREFOUNDATION_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFString.h>
#if __has_include(<CoreFoundation/CFArray.h>)
#include <CoreFoundation/CFArray.h>
#endif
#if __has_include(<CoreFoundation/CFData.h>)
#include <CoreFoundation/CFData.h>
#endif
#if __has_include(<CoreFoundation/CFDate.h>)
#include <CoreFoundation/CFDate.h>
#endif
#if __has_include(<CoreFoundation/CFDictionary.h>)
#include <CoreFoundation/CFDictionary.h>
#endif
#if __has_include(<CoreFoundation/CFError.h>)
#include <CoreFoundation/CFError.h>
#endif
#if __has_include(<CoreFoundation/CFNumber.h>)
#include <CoreFoundation/CFNumber.h>
#endif
#if __has_include(<CoreFoundation/CFPropertyList.h>)
#include <CoreFoundation/CFPropertyList.h>
#endif
#if __has_include(<CoreFoundation/CFUUID.h>)
#include <CoreFoundation/CFUUID.h>
#endif

#endif
