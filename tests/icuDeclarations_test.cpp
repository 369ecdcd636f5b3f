/* Built with the project's own declarations of ICU in the place of ICU's headers, and linked with the real library. */
#include <unicode/putil.h>
#include <unicode/ucnv.h>

#include <gtest/gtest.h>
#include <string>

#ifndef TESSEL_PLATFORM_DARWIN_UCNV_H
#error "these are not the project's own declarations"
#endif

namespace {

std::string Convert(const char *source, std::string input, const char *target,
                    UConverterToUCallback toUnicode, UConverterFromUCallback fromUnicode, UErrorCode *status)
{
   *status = U_ZERO_ERROR;
   UConverter *from = ucnv_open(source, status);
   UConverter *to = ucnv_open(target, status);
   ucnv_setToUCallBack(from, toUnicode, nullptr, nullptr, nullptr, status);
   ucnv_setFromUCallBack(to, fromUnicode, nullptr, nullptr, nullptr, status);
   EXPECT_LE(*status, U_ZERO_ERROR);
   char output[8];
   char *next = output;
   const char *in = input.data();
   UChar pivot[4];
   UChar *pivotSource = pivot;
   UChar *pivotTarget = pivot;
   ucnv_convertEx(to, from, &next, output + sizeof output, &in, input.data() + input.size(), pivot,
                  &pivotSource, &pivotTarget, pivot + std::size(pivot), 0, 1, status);
   ucnv_close(from);
   ucnv_close(to);
   return {output, next};
}

} // namespace

TEST(IcuDeclarations, FitTheLibrary)
{
   u_setDataDirectory("/nowhere");
   UErrorCode status;
   EXPECT_EQ(Convert("UTF-8", "a\xE2\x82\xACz", "windows-1252", UCNV_TO_U_CALLBACK_STOP,
                     UCNV_FROM_U_CALLBACK_STOP, &status),
             "a\x80z");
   EXPECT_EQ(
       Convert("UTF-8", "a\xFFz", "US-ASCII", UCNV_TO_U_CALLBACK_SKIP, UCNV_FROM_U_CALLBACK_SKIP, &status),
       "az");
   EXPECT_EQ(Convert("UTF-8", "a\xFF\xC3\xA9z", "US-ASCII", UCNV_TO_U_CALLBACK_SUBSTITUTE,
                     UCNV_FROM_U_CALLBACK_SUBSTITUTE, &status),
             "a\x1A\x1Az");
   EXPECT_LE(status, U_ZERO_ERROR);
   Convert("UTF-8", "123456789", "US-ASCII", UCNV_TO_U_CALLBACK_STOP, UCNV_FROM_U_CALLBACK_STOP, &status);
   EXPECT_EQ(status, U_BUFFER_OVERFLOW_ERROR);

   status = U_ZERO_ERROR;
   UConverter *converter = ucnv_open("UTF-8", &status);
   EXPECT_EQ(ucnv_toUChars(converter, nullptr, 0, "\xF0\x9F\x98\x80", 4, &status), 2);
   EXPECT_EQ(status, U_BUFFER_OVERFLOW_ERROR);
   ucnv_close(converter);
}
