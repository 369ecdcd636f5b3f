/* Built with the project's own declarations of ICU in the place of ICU's headers, and linked with the real library. */
#include <unicode/putil.h>
#include <unicode/ucnv.h>

#include <gtest/gtest.h>
#include <string>

#ifndef TESSEL_PLATFORM_DARWIN_UCNV_H
#error "these are not the project's own declarations"
#endif

TEST(IcuDeclarations, FitTheLibrary)
{
   const struct {
      UConverterToUCallback toUnicode;
      UConverterFromUCallback fromUnicode;
      std::string input;
      const char *target;
      std::string output;
      UErrorCode status;
   } cases[] = {
       {UCNV_TO_U_CALLBACK_STOP, UCNV_FROM_U_CALLBACK_STOP, "a\xE2\x82\xACz", "windows-1252", "a\x80z",
        U_ZERO_ERROR},
       {UCNV_TO_U_CALLBACK_SKIP, UCNV_FROM_U_CALLBACK_SKIP, "a\xFFz", "US-ASCII", "az", U_ZERO_ERROR},
       {UCNV_TO_U_CALLBACK_SUBSTITUTE, UCNV_FROM_U_CALLBACK_SUBSTITUTE, "a\xFF\xC3\xA9z", "US-ASCII",
        "a\x1A\x1Az", U_ZERO_ERROR},
       {UCNV_TO_U_CALLBACK_STOP, UCNV_FROM_U_CALLBACK_STOP, "123456789", "US-ASCII", "12345678",
        U_BUFFER_OVERFLOW_ERROR}};
   u_setDataDirectory("/nowhere");
   for (const auto &c : cases) {
      UErrorCode status = U_ZERO_ERROR;
      UConverter *from = ucnv_open("UTF-8", &status);
      UConverter *to = ucnv_open(c.target, &status);
      ucnv_setToUCallBack(from, c.toUnicode, nullptr, nullptr, nullptr, &status);
      ucnv_setFromUCallBack(to, c.fromUnicode, nullptr, nullptr, nullptr, &status);
      char output[8];
      char *next = output;
      const char *in = c.input.data();
      UChar pivot[4];
      UChar *pivotSource = pivot;
      UChar *pivotTarget = pivot;
      ucnv_convertEx(to, from, &next, output + sizeof output, &in, in + c.input.size(), pivot, &pivotSource,
                     &pivotTarget, pivot + std::size(pivot), 0, 1, &status);
      EXPECT_EQ(std::string(output, next), c.output);
      EXPECT_EQ(std::max(status, U_ZERO_ERROR), c.status);
      status = U_ZERO_ERROR;
      EXPECT_EQ(ucnv_toUChars(from, nullptr, 0, "\xF0\x9F\x98\x80", 4, &status), 2);
      EXPECT_EQ(status, U_BUFFER_OVERFLOW_ERROR);
      ucnv_close(from);
      ucnv_close(to);
   }
}
