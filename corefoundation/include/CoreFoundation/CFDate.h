/* CFDate.h: points in time.
 *
 * An absolute time is a number of seconds, with fraction, from 2001-01-01 00:00:00 UTC;
 * earlier times are negative. Leap seconds are not counted. Dates are immutable and may
 * be used by any number of threads.
 *
 * Faults. A null date is a programming error and aborts.
 */
#ifndef COREFOUNDATION_CFDATE_H
#define COREFOUNDATION_CFDATE_H

#include <CoreFoundation/CFBase.h>

/* Seconds. */
typedef double CFTimeInterval;
/* Seconds since 2001-01-01 00:00:00 UTC. */
typedef CFTimeInterval CFAbsoluteTime;

/* The current time by the system's clock. */
CF_EXPORT CFAbsoluteTime CFAbsoluteTimeGetCurrent(void);

/* Seconds from 1970-01-01 00:00:00 UTC to the reference date: 978307200. */
CF_EXPORT const CFTimeInterval kCFAbsoluteTimeIntervalSince1970;
/* Seconds from 1904-01-01 00:00:00 UTC to the reference date: 3061152000. */
CF_EXPORT const CFTimeInterval kCFAbsoluteTimeIntervalSince1904;

typedef const struct __CFDate *CFDateRef;

CF_EXPORT CFTypeID CFDateGetTypeID(void);
/* A new date; the caller releases it. Any double is taken. Null only when memory is out. */
CF_EXPORT CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime at);
/* The time the date was made of. */
CF_EXPORT CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef theDate);
/* Seconds from otherDate to theDate; negative when theDate is the earlier one. */
CF_EXPORT CFTimeInterval CFDateGetTimeIntervalSinceDate(CFDateRef theDate, CFDateRef otherDate);
/* Orders the earlier date first. context is unused and may be null. */
CF_EXPORT CFComparisonResult CFDateCompare(CFDateRef theDate, CFDateRef otherDate, void *context);

#endif
