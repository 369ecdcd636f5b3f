#include "lib/user/dictionary.h"
#include "lib/user/msgList.h"
#include "tests/support/testSupport.h"

#include <cerrno>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstring>

namespace {

struct DictionaryEnd {
   void operator()(Dictionary *dictionary) const
   {
      Dictionary_Free(dictionary);
   }

   void operator()(MsgList *messages) const
   {
      MsgList_Free(messages);
   }
};

/* A dictionary with a message list. */
struct Subject {
   std::unique_ptr<MsgList, DictionaryEnd> messages{MsgList_Create()};
   std::unique_ptr<Dictionary, DictionaryEnd> owned;
   Dictionary *dictionary;

   explicit Subject(Dictionary *made = Dictionary_Create()) : owned(made), dictionary(made)
   {
      Dictionary_SetMessageList(dictionary, messages.get());
   }

   /* Puts in an untyped value, as a file does. */
   void Put(const std::string &text)
   {
      Dictionary_SetFromString(dictionary, text.c_str(), false, messages.get());
   }

   std::string Text(const char *name)
   {
      return Take(Dictionary_GetText(dictionary, name));
   }

   /* The messages so far, as "identifier: text", which are then dropped. */
   std::string Messages()
   {
      std::string all;
      for (size_t i = 0; i < MsgList_Count(messages.get()); i++) {
         const MsgListMessage *message = MsgList_Get(messages.get(), i);
         all += std::string(message->identifier) + ": " + message->text;
      }
      MsgList_Rollback(messages.get(), 0);
      return all;
   }
};

std::string Complaint(const char *id, const std::string &text, const char *what, const std::string &used)
{
   return std::string("msg.dictionary.") + id + ": Value \"" + text + "\" for variable \"v\" is " + what +
          ". Using value \"" + used + "\".\n";
}

TEST(MsgListAppend, KeepsIdentifierTextAndArguments)
{
   const std::unique_ptr<MsgList, DictionaryEnd> list(MsgList_Create());
   const char *volatile none = nullptr;
   errno = EXDEV;
   MsgList_Append(nullptr, MSGLIST_ID("x") "dropped");
   MsgList_Append(list.get(), MSGLIST_ID("a.b") "%s: %5.1f%% of %d, %lld, %u%s\n", "one", 2.5, -3, LLONG_MIN,
                  UINT_MAX, none);
   MsgList_Append(list.get(), "bare (text)");
   EXPECT_EQ(EXDEV, errno);

   ASSERT_EQ(2U, MsgList_Count(list.get()));
   const MsgListMessage *first = MsgList_Get(list.get(), 0);
   EXPECT_STREQ("@&!*@*@(msg.a.b)%s: %5.1f%% of %d, %lld, %u%s\n", first->format);
   EXPECT_STREQ("msg.a.b", first->identifier);
   EXPECT_STREQ("one:   2.5% of -3, -9223372036854775808, 4294967295(null)\n", first->text);
   ASSERT_EQ(6U, first->argumentCount);
   EXPECT_STREQ("one", first->arguments[0].string);
   EXPECT_EQ(2.5, first->arguments[1].number);
   EXPECT_EQ(-3, first->arguments[2].integer);
   EXPECT_EQ(LLONG_MIN, first->arguments[3].integer);
   EXPECT_EQ(UINT_MAX, first->arguments[4].integer);
   EXPECT_EQ(nullptr, first->arguments[5].string);
   EXPECT_STREQ("", MsgList_Get(list.get(), 1)->identifier);
   EXPECT_EQ(std::string(first->text) + "bare (text)", Take(MsgList_ToString(list.get())));

   MsgList_Rollback(list.get(), 1);
   EXPECT_EQ(1U, MsgList_Count(list.get()));
   EXPECT_EQ("", Take(MsgList_ToString(nullptr)));
}

TEST(DictionaryGet, ConvertsTextOnceByItsType)
{
   struct Case {
      const char *text;
      long long int32; /* With 77 as what to fall back on. */
      long long int64;
      double number;
   };
   static const Case cases[] = {
       {"0x10", 16, 16, 16},
       {"010", 8, 8, 10},
       {" -5", -5, -5, -5},
       {"", 77, 77, 0},
       {"  ", 77, 77, 77},
       {"12abc", 77, 77, 77},
       {"1.5", 77, 77, 1.5},
       {"1e-310", 77, 77, 1e-310},
       {"inf", 77, 77, HUGE_VAL},
       {"4294967297", 1, 4294967297, 4294967297},
       {"18446744073709551615", -1, -1, 18446744073709551615.0},
       {"18446744073709551616", 77, 77, 18446744073709551616.0},
       {"1e999", 77, 77, 77},
       {"1e-999", 77, 77, 77},
   };
   for (const Case &c : cases) {
      Subject s;
      for (const char *name : {"a=", "b=", "c="}) {
         s.Put(std::string(name) + c.text);
      }
      EXPECT_EQ(c.int32, Dictionary_GetInt32(s.dictionary, 77, "a")) << c.text;
      EXPECT_EQ(c.int64, Dictionary_GetInt64(s.dictionary, 77, "b")) << c.text;
      EXPECT_EQ(c.number, Dictionary_GetDouble(s.dictionary, 77, "c")) << c.text;
      const int complaints = (c.int32 == 77 ? 1 : 0) + (c.int64 == 77 ? 1 : 0) + (c.number == 77 ? 1 : 0);
      EXPECT_EQ(complaints, static_cast<int>(MsgList_Count(s.messages.get()))) << c.text;
   }
}

TEST(DictionaryGet, SaysWhatIsWrongWithAText)
{
   const char *notBoolean = "not a valid boolean value";
   Subject s;
   const auto put = [&s](const char *text) {
      Dictionary_Unset(s.dictionary, "v");
      s.Put(std::string("v=") + text);
   };

   put("maybe");
   EXPECT_TRUE(Dictionary_GetBool(s.dictionary, true, "v"));
   EXPECT_EQ(Complaint("notBoolean", "maybe", notBoolean, "TRUE"), s.Messages());
   EXPECT_TRUE(Dictionary_GetBool(s.dictionary, false, "v")) << "the first answer stays";
   put("maybe");
   EXPECT_FALSE(Dictionary_GetBool(s.dictionary, false, "v"));
   EXPECT_EQ(Complaint("notBoolean", "maybe", notBoolean, "FALSE"), s.Messages());
   for (const auto &[fallback, word] : {std::pair{1, "TRUE"}, {0, "FALSE"}, {-1, "default"}}) {
      put("maybe");
      EXPECT_EQ(fallback, Dictionary_GetTriState(s.dictionary, fallback, "v"));
      EXPECT_EQ(Complaint("notTristate", "maybe", "not a valid tristate value", word), s.Messages());
   }
   put("12abc");
   EXPECT_EQ(-7, Dictionary_GetInt32(s.dictionary, -7, "%s", "V"));
   EXPECT_EQ(Complaint("notInteger", "12abc", "not a valid integer value", "-7"), s.Messages());
   put("99999999999999999999");
   EXPECT_EQ(-7, Dictionary_GetInt32(s.dictionary, -7, "v"));
   EXPECT_EQ(Complaint("integerOutOfRange", "99999999999999999999", "out of range", "-7"), s.Messages());
   put("0x");
   EXPECT_EQ(LLONG_MIN, Dictionary_GetInt64(s.dictionary, LLONG_MIN, "v"));
   EXPECT_EQ(Complaint("notInteger64", "0x", "not a valid integer value", "-9223372036854775808"),
             s.Messages());
   put("-99999999999999999999");
   EXPECT_EQ(3, Dictionary_GetInt64(s.dictionary, 3, "v"));
   EXPECT_EQ(Complaint("integer64OutOfRange", "-99999999999999999999", "out of range", "3"), s.Messages());
   put("x");
   EXPECT_EQ(0.5, Dictionary_GetDouble(s.dictionary, 0.5, "v"));
   EXPECT_EQ(Complaint("notFloat", "x", "not a valid floating point value", "0.500000"), s.Messages());
   put("1e999");
   EXPECT_EQ(0.5, Dictionary_GetDouble(s.dictionary, 0.5, "v"));
   EXPECT_EQ(Complaint("doubleOutOfRange", "1e999", "out of range", "0.500000"), s.Messages());
}

TEST(DictionaryGet, LeavesATypedValueAsItIs)
{
   Subject s;
   s.Put("b=yes");
   s.Put("t=text");
   EXPECT_TRUE(Dictionary_GetBool(s.dictionary, false, "b"));
   EXPECT_EQ(1, Dictionary_GetInt32(s.dictionary, 5, "b"));
   EXPECT_EQ("fallback", Take(Dictionary_GetString(s.dictionary, "fallback", "b")));
   EXPECT_EQ("text", Take(Dictionary_GetString(s.dictionary, "fallback", "t")));
   EXPECT_EQ(5, Dictionary_GetInt32(s.dictionary, 5, "t"));
   EXPECT_FALSE(Dictionary_GetBool(s.dictionary, false, "t"));
   EXPECT_EQ("", s.Messages());
   EXPECT_EQ("TRUE", s.Text("b"));
}

TEST(DictionaryGet, StoresOnlyARealFallback)
{
   Subject s;
   EXPECT_FALSE(Dictionary_GetBool(s.dictionary, false, "n1"));
   EXPECT_EQ(0, Dictionary_GetInt32(s.dictionary, 0, "n2"));
   EXPECT_EQ(-1, Dictionary_GetInt32(s.dictionary, -1, "n3"));
   EXPECT_EQ(-1, Dictionary_GetTriState(s.dictionary, -1, "n4"));
   EXPECT_EQ(0, Dictionary_GetDouble(s.dictionary, -0.0, "n5"));
   EXPECT_EQ("<null>", Take(Dictionary_GetString(s.dictionary, nullptr, "n6")));
   for (const char *name : {"n1", "n2", "n3", "n4", "n5", "n6"}) {
      EXPECT_FALSE(Dictionary_IsDefined(s.dictionary, name)) << name;
   }
   EXPECT_EQ(-1, Dictionary_GetInt64(s.dictionary, -1, "y1"));
   EXPECT_EQ(5, Dictionary_GetInt32(s.dictionary, 5, "y2"));
   EXPECT_EQ("", Take(Dictionary_GetString(s.dictionary, "", "y3")));
   for (const char *name : {"y1", "y2", "y3"}) {
      EXPECT_TRUE(Dictionary_IsDefined(s.dictionary, name)) << name;
   }
   EXPECT_EQ(5, Dictionary_GetInt32(s.dictionary, 6, "y2"));
   EXPECT_FALSE(Dictionary_IsChanged(s.dictionary));

   int persistent = 0;
   Dictionary_ForEach(
       s.dictionary, [](const char *, void *count) { return ++*static_cast<int *>(count) != 0; },
       &persistent);
   EXPECT_EQ(0, persistent);
   Dictionary_SetInt32(s.dictionary, 5, 0, "y2");
   EXPECT_TRUE(Dictionary_IsChanged(s.dictionary)) << "asked for by name, it is to be saved";
}

TEST(DictionaryGet, KeepsProtectionsApartUnderAKey)
{
   Subject s;
   Dictionary_SetString(s.dictionary, "open", DICTIONARY_PLAIN, "plain");
   Dictionary_SetString(s.dictionary, "hidden", DICTIONARY_PROTECTED, "secret");
   EXPECT_EQ("hidden", Take(Dictionary_GetString(s.dictionary, nullptr, "secret"))) << "no key, no walls";

   Dictionary_SetProtectionKey(s.dictionary, &s);
   EXPECT_EQ("<null>", Take(Dictionary_GetString(s.dictionary, nullptr, "secret")));
   EXPECT_EQ("other", Take(Dictionary_GetStringPlain(s.dictionary, "other", "secret")));
   EXPECT_EQ("hidden", Take(Dictionary_GetStringProtected(s.dictionary, nullptr, "secret")));
   EXPECT_EQ("<null>", Take(Dictionary_GetStringProtected(s.dictionary, nullptr, "plain")));
   Dictionary_SetDefaultProtection(s.dictionary, true);
   EXPECT_EQ("hidden", Take(Dictionary_GetString(s.dictionary, nullptr, "secret")));

   const CapturedLog log;
   Dictionary_Dump(s.dictionary);
   EXPECT_EQ("DICT                     plain = \"open\"\nDICT                    secret = <not printed>\n",
             log.Text());
}

TEST(DictionarySet, MarksOnlyRealDifferences)
{
   struct Case {
      const char *what;
      bool changes;
      void (*set)(Dictionary *dictionary);
   };
   static constexpr Case cases[] = {
       {"same text", false, [](Dictionary *d) { Dictionary_SetString(d, "x", 0, "TEXT"); }},
       {"other text", true, [](Dictionary *d) { Dictionary_SetString(d, "X", 0, "text"); }},
       {"null for empty", false, [](Dictionary *d) { Dictionary_SetString(d, nullptr, 0, "empty"); }},
       {"same number", false, [](Dictionary *d) { Dictionary_SetInt32(d, 16, 0, "hex"); }},
       {"other number", true, [](Dictionary *d) { Dictionary_SetInt64(d, 17, 0, "hex"); }},
       {"number for no number", true, [](Dictionary *d) { Dictionary_SetInt32(d, 0, 0, "text"); }},
       {"same word", false, [](Dictionary *d) { Dictionary_SetBool(d, true, 0, "yes"); }},
       {"same tri-state", false, [](Dictionary *d) { Dictionary_SetTriState(d, -1, 0, "auto"); }},
       {"untyped", false, [](Dictionary *d) { Dictionary_SetFromString(d, "text=x", false, nullptr); }},
       {"text into a type", false,
        [](Dictionary *d) {
           EXPECT_EQ(16, Dictionary_GetInt32(d, 0, "hex"));
           Dictionary_SetString(d, "020", 0, "hex");
        }},
       {"other text into a type", true,
        [](Dictionary *d) {
           EXPECT_EQ(16, Dictionary_GetInt32(d, 0, "hex"));
           Dictionary_SetString(d, "21", 0, "hex");
        }},
       {"protection", true,
        [](Dictionary *d) { Dictionary_SetString(d, "x", DICTIONARY_PROTECTED, "text"); }},
       {"new", true, [](Dictionary *d) { Dictionary_SetDouble(d, 0, 0, "new"); }},
       {"unset", true, [](Dictionary *d) { Dictionary_Unset(d, "text"); }},
       {"unset what is not there", false, [](Dictionary *d) { Dictionary_Unset(d, "none"); }},
       {"unset what is not persistent", false,
        [](Dictionary *d) {
           EXPECT_EQ(5, Dictionary_GetInt32(d, 5, "fleeting"));
           Dictionary_Unset(d, "fleeting");
        }},
   };
   for (const Case &c : cases) {
      Subject s;
      ASSERT_TRUE(Dictionary_Unmarshal(s.dictionary, "text = x\nempty =\nhex = 0x10\nyes = y\nauto = auto\n",
                                       false, 0, nullptr));
      c.set(s.dictionary);
      EXPECT_EQ(c.changes, Dictionary_IsChanged(s.dictionary)) << c.what;
   }
}

TEST(DictionarySet, KeepsATypeAgainstATextThatIsNotOfIt)
{
   Subject s;
   Dictionary_SetInt32(s.dictionary, 7, 0, "v");
   Dictionary_SetStringFormat(s.dictionary, "12abc", 0, "%c", 'v');
   EXPECT_EQ(Complaint("notInteger", "12abc", "not a valid integer value", "7"), s.Messages());
   EXPECT_EQ("7", s.Text("v"));
   Dictionary_SetDouble(s.dictionary, 0.1, 0, "v");
   EXPECT_EQ("0.1", s.Text("v")) << "a number of another type brings its type";
   Dictionary_SetString(s.dictionary, "text", 0, "v");
   EXPECT_EQ("0.1", s.Text("v"));
   EXPECT_NE("", s.Messages());
}

TEST(DictionarySetFromString, SplitsAtTheFirstEqualsSign)
{
   Subject s;
   for (const char *text : {"a=b=c", "bare", "empty=", "A=2"}) {
      s.Put(text);
   }
   EXPECT_EQ("2", s.Text("a"));
   EXPECT_EQ("", s.Text("bare"));
   EXPECT_EQ("", s.Text("empty"));
   Dictionary_SetFromString(s.dictionary, "A=3", true, s.messages.get());
   EXPECT_EQ("2", s.Text("a"));
   EXPECT_EQ("msg.dictionary.alreadyDefined.string: Variable \"A\" is already defined.\n", s.Messages());
}

TEST(DictionaryNames, AreCutAndComparedAsAsked)
{
   Subject s(Dictionary_CreateWithSize(2, true));
   const std::string name(1022, 'n');
   Dictionary_SetStringFormat(s.dictionary, "1", 0, "%s\xC3\xA9", name.c_str());
   EXPECT_TRUE(Dictionary_IsDefined(s.dictionary, name.c_str())) << "cut before the half character";
   for (const char *text : {"Guest.a=1", "guest.B=2", "guestx=3", "x=4", "X=5"}) {
      s.Put(text);
   }
   EXPECT_EQ("45", s.Text("x") + s.Text("X"));
   Dictionary_UnsetPrefix(s.dictionary, "GUEST.");
   EXPECT_EQ("<null><null>3", s.Text("Guest.a") + s.Text("guest.B") + s.Text("guestx"));
   EXPECT_PANIC(Dictionary_Free(Dictionary_CreateWithSize(3, false)),
                "HashTable_Alloc only takes powers of 2");
}

TEST(DictionaryDump, PrintsValuesButNoSecrets)
{
   Subject s;
   for (const char *secret : {"dataFileKey", "ancestorDataFileKeys", "GuestInfo.x", "a.key", "annotation"}) {
      Dictionary_SetString(s.dictionary, "secret", 0, secret);
   }
   for (const char *open : {".key", "B.KEY", "dataFileKeyX"}) {
      Dictionary_SetString(s.dictionary, "o", 0, open);
   }
   Dictionary_SetBool(s.dictionary, true, 0, "bool");
   Dictionary_SetTriState(s.dictionary, -1, 0, "tri");
   Dictionary_SetInt32(s.dictionary, -5, 0, "int");
   Dictionary_SetInt64(s.dictionary, LLONG_MIN, 0, "long");
   Dictionary_SetDouble(s.dictionary, 1.5, 0, "double");
   Dictionary_SetString(s.dictionary, "gone", DICTIONARY_NOT_PERSISTENT, "fleeting");
   const CapturedLog log;
   Dictionary_Dump(s.dictionary);
   EXPECT_EQ("DICT               dataFileKey = <not printed>\n"
             "DICT      ancestorDataFileKeys = <not printed>\n"
             "DICT               GuestInfo.x = <not printed>\n"
             "DICT                     a.key = <not printed>\n"
             "DICT                annotation = <not printed>\n"
             "DICT                      .key = \"o\"\n"
             "DICT                     B.KEY = \"o\"\n"
             "DICT              dataFileKeyX = \"o\"\n"
             "DICT                      bool = \"TRUE\"\n"
             "DICT                       tri = \"DEFAULT\"\n"
             "DICT                       int = \"-5\"\n"
             "DICT                      long = \"-9223372036854775808\"\n"
             "DICT                    double = \"1.5\"\n",
             log.Text());
}

TEST(DictionaryParse, KnowsTheWords)
{
   const auto parse = [](const char *text) {
      bool badBool = false;
      bool badTri = false;
      const bool isTrue = Dictionary_ParseBool(text, &badBool);
      const int32_t tri = Dictionary_ParseTriState(text, &badTri);
      EXPECT_EQ(badBool, badTri || tri == -1);
      EXPECT_TRUE(badBool ? !isTrue : tri == (isTrue ? 1 : 0));
      return badTri ? 9 : tri;
   };
   for (const char *word : {"", "true", "T", "Yes", "y", "oN", "1"}) {
      EXPECT_EQ(1, parse(word)) << word;
   }
   for (const char *word : {"FALSE", "f", "No", "N", "off", "0"}) {
      EXPECT_EQ(0, parse(word)) << word;
   }
   for (const char *word : {"Default", "dontcare", "AUTO"}) {
      EXPECT_EQ(-1, parse(word)) << word;
   }
   for (const char *word : {"2", "00", " true", "truee", "tru"}) {
      EXPECT_EQ(9, parse(word)) << word;
   }
   EXPECT_EQ(9, parse(nullptr));
}

} // namespace
