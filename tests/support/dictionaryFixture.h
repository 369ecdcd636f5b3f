#ifndef TESSEL_TESTS_SUPPORT_DICTIONARYFIXTURE_H
#define TESSEL_TESTS_SUPPORT_DICTIONARYFIXTURE_H

#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <cstring>

/* A dictionary with a message list, and a folder for its files. */
class DictionaryFixture : public testing::Test {
 protected:
   DictionaryFixture()
   {
      Dictionary_SetMessageList(dictionary_, messages_);
   }

   ~DictionaryFixture() override
   {
      Dictionary_Free(dictionary_);
      MsgList_Free(messages_);
   }

   std::string Path(const std::string &name = "f")
   {
      return folder_.Path(name);
   }

   bool Load(const std::string &content)
   {
      WriteFile(Path(), content);
      return Dictionary_Load(dictionary_, Path().c_str());
   }

   bool Unmarshal(const std::string &content, bool append = false, EncodingId encoding = ENCODING_DEFAULT)
   {
      return Dictionary_Unmarshal(dictionary_, content.c_str(), append, encoding, messages_);
   }

   std::string Text(const char *name)
   {
      return Take(Dictionary_GetText(dictionary_, name));
   }

   /* The messages so far, as "identifier: text", which are then dropped. */
   std::string Messages()
   {
      std::string all;
      for (size_t i = 0; i < MsgList_Count(messages_); i++) {
         const MsgListMessage *message = MsgList_Get(messages_, i);
         all += std::string(message->identifier).substr(strlen("msg.dictionary.")) + ": " + message->text;
      }
      MsgList_Rollback(messages_, 0);
      return folder_.Shorten(all);
   }

   std::string Log()
   {
      return folder_.Shorten(log_.TakeText());
   }

   ScratchFolder folder_;
   CapturedLog log_;
   MsgList *messages_ = MsgList_Create();
   Dictionary *dictionary_ = Dictionary_Create();
};

#endif
