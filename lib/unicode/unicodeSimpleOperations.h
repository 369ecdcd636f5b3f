#ifndef TESSEL_LIB_UNICODE_UNICODESIMPLEOPERATIONS_H
#define TESSEL_LIB_UNICODE_UNICODESIMPLEOPERATIONS_H

/* A new string: first with the further strings appended in order, up to the null argument that ends the list.
   Null if first is null. The caller frees it. */
[[nodiscard]] char *Unicode_Join(const char *first, ...) __attribute__((sentinel));

#endif
