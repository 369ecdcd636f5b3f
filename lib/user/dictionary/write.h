#ifndef TESSEL_LIB_USER_DICTIONARY_WRITE_H
#define TESSEL_LIB_USER_DICTIONARY_WRITE_H

struct Dictionary;
struct DynBuf;
struct MsgList;

/* Renders the file into an empty buffer, which may hold anything after a failure. No NUL is added. */
bool DictionaryRender(Dictionary *dictionary, bool protect, MsgList *messages, DynBuf *text);

/* Whether the dictionary may be written: false, logged, for one whose protected state does not check out. */
bool DictionaryCheckIntegrity(const Dictionary *dictionary);

/* Tells the user that there is nothing to write. */
void DictionaryReportExport(MsgList *messages);

/* What is in the dictionary is what is in the file. */
void DictionaryMarkSaved(Dictionary *dictionary);

#endif
