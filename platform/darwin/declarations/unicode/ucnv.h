#ifndef TESSEL_PLATFORM_DARWIN_UCNV_H
#define TESSEL_PLATFORM_DARWIN_UCNV_H

#include <unicode/icuNames.h>

#define ucnv_open                       TESSEL_ICU(ucnv_open)
#define ucnv_close                      TESSEL_ICU(ucnv_close)
#define ucnv_setToUCallBack             TESSEL_ICU(ucnv_setToUCallBack)
#define ucnv_setFromUCallBack           TESSEL_ICU(ucnv_setFromUCallBack)
#define ucnv_convertEx                  TESSEL_ICU(ucnv_convertEx)
#define ucnv_toUChars                   TESSEL_ICU(ucnv_toUChars)
#define UCNV_TO_U_CALLBACK_STOP         TESSEL_ICU(UCNV_TO_U_CALLBACK_STOP)
#define UCNV_TO_U_CALLBACK_SUBSTITUTE   TESSEL_ICU(UCNV_TO_U_CALLBACK_SUBSTITUTE)
#define UCNV_TO_U_CALLBACK_SKIP         TESSEL_ICU(UCNV_TO_U_CALLBACK_SKIP)
#define UCNV_FROM_U_CALLBACK_STOP       TESSEL_ICU(UCNV_FROM_U_CALLBACK_STOP)
#define UCNV_FROM_U_CALLBACK_SUBSTITUTE TESSEL_ICU(UCNV_FROM_U_CALLBACK_SUBSTITUTE)
#define UCNV_FROM_U_CALLBACK_SKIP       TESSEL_ICU(UCNV_FROM_U_CALLBACK_SKIP)

struct UConverter;
struct UConverterToUnicodeArgs;
struct UConverterFromUnicodeArgs;

enum UConverterCallbackReason : int { UCNV_UNASSIGNED = 0, UCNV_ILLEGAL = 1 };

extern "C" {
using UConverterToUCallback = void (*)(const void *context, UConverterToUnicodeArgs *args,
                                       const char *codeUnits, int32_t length, UConverterCallbackReason reason,
                                       UErrorCode *status);
using UConverterFromUCallback = void (*)(const void *context, UConverterFromUnicodeArgs *args,
                                         const UChar *codeUnits, int32_t length, int32_t codePoint,
                                         UConverterCallbackReason reason, UErrorCode *status);

void UCNV_TO_U_CALLBACK_STOP(const void *context, UConverterToUnicodeArgs *args, const char *codeUnits,
                             int32_t length, UConverterCallbackReason reason, UErrorCode *status);
void UCNV_TO_U_CALLBACK_SUBSTITUTE(const void *context, UConverterToUnicodeArgs *args, const char *codeUnits,
                                   int32_t length, UConverterCallbackReason reason, UErrorCode *status);
void UCNV_TO_U_CALLBACK_SKIP(const void *context, UConverterToUnicodeArgs *args, const char *codeUnits,
                             int32_t length, UConverterCallbackReason reason, UErrorCode *status);
void UCNV_FROM_U_CALLBACK_STOP(const void *context, UConverterFromUnicodeArgs *args, const UChar *codeUnits,
                               int32_t length, int32_t codePoint, UConverterCallbackReason reason,
                               UErrorCode *status);
void UCNV_FROM_U_CALLBACK_SUBSTITUTE(const void *context, UConverterFromUnicodeArgs *args,
                                     const UChar *codeUnits, int32_t length, int32_t codePoint,
                                     UConverterCallbackReason reason, UErrorCode *status);
void UCNV_FROM_U_CALLBACK_SKIP(const void *context, UConverterFromUnicodeArgs *args, const UChar *codeUnits,
                               int32_t length, int32_t codePoint, UConverterCallbackReason reason,
                               UErrorCode *status);

UConverter *ucnv_open(const char *name, UErrorCode *status);
void ucnv_close(UConverter *converter);
void ucnv_setToUCallBack(UConverter *converter, UConverterToUCallback action, const void *context,
                         UConverterToUCallback *oldAction, const void **oldContext, UErrorCode *status);
void ucnv_setFromUCallBack(UConverter *converter, UConverterFromUCallback action, const void *context,
                           UConverterFromUCallback *oldAction, const void **oldContext, UErrorCode *status);
void ucnv_convertEx(UConverter *target, UConverter *source, char **targetNext, const char *targetLimit,
                    const char **sourceNext, const char *sourceLimit, UChar *pivotStart, UChar **pivotSource,
                    UChar **pivotTarget, const UChar *pivotLimit, UBool reset, UBool flush,
                    UErrorCode *status);
int32_t ucnv_toUChars(UConverter *converter, UChar *destination, int32_t destinationUnits, const char *source,
                      int32_t sourceBytes, UErrorCode *status);
}

#endif
