#ifndef TESSEL_LIB_USER_DICTIONARYWRITE_H
#define TESSEL_LIB_USER_DICTIONARYWRITE_H

struct Dictionary;
struct DynBuf;
struct MsgList;

/* Renders the file into an empty buffer, which may hold anything after a failure. No NUL is added. */
bool DictionaryRender(Dictionary *dictionary, bool protect, MsgList *messages, DynBuf *text);

/* What is in the dictionary is what is in the file. */
void DictionaryMarkSaved(Dictionary *dictionary);

#endif
