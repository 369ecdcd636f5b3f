#ifndef TESSEL_PLATFORM_NORMALIZATION_H
#define TESSEL_PLATFORM_NORMALIZATION_H

/* The normalisation forms of Unicode Standard Annex #15. */
enum class NormalizationForm { Composed, Decomposed };

/* The normalised form (C or D) of a zero-terminated UTF-8 string, as a new zero-terminated string that the caller
   frees. Null if the string is not valid UTF-8, if memory runs out, or on a system that cannot normalise. Any
   thread may call this at any time. */
[[nodiscard]] char *Normalization_Normalize(const char *string, NormalizationForm form);

#endif
