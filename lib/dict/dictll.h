#ifndef TESSEL_LIB_DICT_DICTLL_H
#define TESSEL_LIB_DICT_DICTLL_H

#include <cstddef>
#include <cstdio>
#include <string_view>

struct DynBuf;

/* The lines of a dictionary file, one at a time.

      line       = blanks [ definition ] [ "#" anything ]
      definition = name blanks "=" blanks value blanks
      name       = bytes other than NUL, TAB, SPACE, "#", "="
      value      = '"' bytes other than NUL, '"' '"'  |  bytes other than NUL, TAB, SPACE, "#"; the first not
   '"'

   Blanks are TAB and SPACE. In a value "|" and two hexadecimal digits stand for a byte; "|00" ends it.
   Whatever does not fit is still a line, though not a definition.

   A line, name or value that is handed out is a new NUL-terminated string, which the caller frees, with
   Secret_FreeString where it may hold a secret; a NUL byte inside ends it early. Exhausted memory ends the
   process unless said otherwise. */

/* Where the parts of a definition lie within its line. */
struct DictLLParts {
   std::string_view name;
   std::string_view token; /* The value as it is spelled, with its quotes if it has any. */
   std::string_view value; /* The same without quotes, still escaped. */
};

/* Whether the line, given without its line feed, is a definition; *parts, which point into it, are set only then. */
[[nodiscard]] bool DictLL_ParseLine(std::string_view line, DictLLParts *parts);

/* Whether there is anything to unescape in the value of a definition, and that value unescaped. */
[[nodiscard]] bool DictLL_IsEscaped(std::string_view value);
[[nodiscard]] char *DictLL_Unescape(std::string_view value);

/* Takes the first line of size bytes. Gives the start of the next line, which is the end of the buffer after the last
   one; null for size 0. *line has no line feed; *name and *value are null unless the line is a definition,
   and all three if the result is null. */
const char *DictLL_UnmarshalLine(const char *buffer, size_t size, char **line, char **name, char **value);

/* Takes the next line of a stream, however long. 2: a line was read, outputs as above; 1: the stream is at its end;
   0: a read error, with errno set and the part of a line before it lost. The outputs are null for 1 and 0.
   Blocks as the stream does; interruptions by signals are passed over. */
[[nodiscard]] int DictLL_ReadLine(FILE *stream, char **line, char **name, char **value);

/* The same without a copy: the line alone, whatever bytes it has, takes the place of what the buffer held. */
[[nodiscard]] int DictLL_ReadText(FILE *stream, DynBuf *text);

/* Appends one line: the definition «name = "value"» with the value escaped, or, for a null name, value itself. A
   block that the buffer outgrows is zeroed. False, with the size unchanged, if the buffer cannot grow. */
[[nodiscard]] bool DictLL_MarshalLine(DynBuf *output, const char *name, const char *value);

/* The same to a stream, in one fwrite. False with errno set. */
[[nodiscard]] bool DictLL_WriteLine(FILE *stream, const char *name, const char *value);

/* Whether a stream that nothing was read from begins with the UTF-8 byte-order mark, which is then consumed; otherwise
   the stream is at its start again, which takes a stream that can seek only if the first byte is that of the
   mark. Standard input is not looked at: false. */
[[nodiscard]] bool DictLL_ReadUTF8BOM(FILE *stream);

#endif
