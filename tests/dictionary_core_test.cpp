#include "tests/support/dictionaryFixture.h"

#include <cerrno>
#include <climits>
#include <cmath>

namespace {

class DictionaryValues : public DictionaryFixture {
 protected:
   /* Puts in an untyped value, as a file does. */
   void Put(const std::string &text)
   {
      Dictionary_SetFromString(dictionary_, text.c_str(), false, messages_);
   }

   std::string String(const char *name, const char *fallback = nullptr)
   {
      return Take(Dictionary_GetString(dictionary_, fallback, "%s", name));
   }
};

TEST_F(DictionaryValues, MessagesKeepIdentifierTextAndArguments)
{
   const char *volatile none = nullptr;
   errno = EXDEV;
   MsgList_Append(nullptr, MSGLIST_ID("x") "dropped");
   MsgList_Append(messages_, MSGLIST_ID("a.b") "%s: %5.1f%% of %d, %lld, %u%s\n", "one", 2.5, -3, LLONG_MIN,
                  UINT_MAX, none);
   MsgList_Append(messages_, "bare (text)");
   EXPECT_EQ(EXDEV, errno);
   ASSERT_EQ(2U, MsgList_Count(messages_));
   const MsgListMessage *first = MsgList_Get(messages_, 0);
   const MsgArgument *const arguments = first->arguments;
   EXPECT_STREQ("@&!*@*@(msg.a.b)%s: %5.1f%% of %d, %lld, %u%s\n", first->format);
   EXPECT_STREQ("msg.a.b", first->identifier);
   EXPECT_STREQ("one:   2.5% of -3, -9223372036854775808, 4294967295(null)\n", first->text);
   ASSERT_EQ(6U, first->argumentCount);
   EXPECT_STREQ("one", arguments[0].string);
   EXPECT_EQ(nullptr, arguments[5].string);
   EXPECT_EQ(2.5, arguments[1].number);
   EXPECT_TRUE(arguments[2].integer == -3 && arguments[3].integer == LLONG_MIN);
   EXPECT_EQ(UINT_MAX, arguments[4].integer);
   EXPECT_STREQ("", MsgList_Get(messages_, 1)->identifier);
   EXPECT_EQ(std::string(first->text) + "bare (text)", Take(MsgList_ToString(messages_)));
   MsgList_Rollback(messages_, 1);
   EXPECT_EQ(1U, MsgList_Count(messages_));
   EXPECT_EQ("", Take(MsgList_ToString(nullptr)));
}

/* With -7 as what to fall back on. */
TEST_F(DictionaryValues, AreConvertedOnceByTheirType)
{
   const struct {
      const char *text;
      long long int32, int64;
      double number;
   } cases[] = {{"0x10", 16, 16, 16},
                {"010", 8, 8, 10},
                {" -5", -5, -5, -5},
                {"", -7, -7, 0},
                {"  ", -7, -7, -7},
                {"12abc", -7, -7, -7},
                {"1.5", -7, -7, 1.5},
                {"1e-310", -7, -7, 1e-310},
                {"inf", -7, -7, HUGE_VAL},
                {"4294967297", 1, 4294967297, 4294967297},
                {"1e999", -7, -7, -7},
                {"1e-999", -7, -7, -7},
                {"18446744073709551615", -1, -1, 18446744073709551615.0},
                {"18446744073709551616", -7, -7, 18446744073709551616.0}};
   for (const auto &[text, int32, int64, number] : cases) {
      for (const char *name : {"a=", "b=", "c="}) {
         Put(std::string(name) + text);
      }
      EXPECT_EQ(int32, Dictionary_GetInt32(dictionary_, -7, "a")) << text;
      EXPECT_EQ(int64, Dictionary_GetInt64(dictionary_, -7, "b")) << text;
      EXPECT_EQ(number, Dictionary_GetDouble(dictionary_, -7, "c")) << text;
      const std::string messages = Messages();
      EXPECT_EQ(int32 == -7, messages.find("\"a\"") != std::string::npos) << text;
      EXPECT_EQ(int64 == -7, messages.find("\"b\"") != std::string::npos) << text;
      EXPECT_EQ(number == -7, messages.find("\"c\"") != std::string::npos) << text;
      Dictionary_UnsetPrefix(dictionary_, "");
   }
}

TEST_F(DictionaryValues, SayWhatIsWrongWithTheirText)
{
   const struct {
      const char *text, *identifier, *what, *used;
      bool (*fallsBack)(Dictionary *dictionary);
   } cases[] = {
       {"maybe", "notBoolean", "not a valid boolean value", "TRUE",
        [](Dictionary *d) { return Dictionary_GetBool(d, true, "v") && Dictionary_GetBool(d, false, "v"); }},
       {"maybe", "notBoolean", "not a valid boolean value", "FALSE",
        [](Dictionary *d) { return !Dictionary_GetBool(d, false, "v"); }},
       {"maybe", "notTristate", "not a valid tristate value", "TRUE",
        [](Dictionary *d) { return Dictionary_GetTriState(d, 1, "v") == 1; }},
       {"maybe", "notTristate", "not a valid tristate value", "FALSE",
        [](Dictionary *d) { return Dictionary_GetTriState(d, 0, "v") == 0; }},
       {"maybe", "notTristate", "not a valid tristate value", "default",
        [](Dictionary *d) { return Dictionary_GetTriState(d, -1, "v") == -1; }},
       {"12abc", "notInteger", "not a valid integer value", "-7",
        [](Dictionary *d) { return Dictionary_GetInt32(d, -7, "%s", "V") == -7; }},
       {"99999999999999999999", "integerOutOfRange", "out of range", "-7",
        [](Dictionary *d) { return Dictionary_GetInt32(d, -7, "v") == -7; }},
       {"0x", "notInteger64", "not a valid integer value", "-9223372036854775808",
        [](Dictionary *d) { return Dictionary_GetInt64(d, LLONG_MIN, "v") == LLONG_MIN; }},
       {"-99999999999999999999", "integer64OutOfRange", "out of range", "3",
        [](Dictionary *d) { return Dictionary_GetInt64(d, 3, "v") == 3; }},
       {"x", "notFloat", "not a valid floating point value", "0.500000",
        [](Dictionary *d) { return Dictionary_GetDouble(d, 0.5, "v") == 0.5; }},
       {"1e999", "doubleOutOfRange", "out of range", "0.500000",
        [](Dictionary *d) { return Dictionary_GetDouble(d, 0.5, "v") == 0.5; }},
   };
   for (const auto &[text, identifier, what, used, fallsBack] : cases) {
      Dictionary_Unset(dictionary_, "v");
      Put(std::string("v=") + text);
      EXPECT_TRUE(fallsBack(dictionary_)) << identifier;
      EXPECT_EQ(std::string(identifier) + ": Value \"" + text + "\" for variable \"v\" is " + what +
                    ". Using value \"" + used + "\".\n",
                Messages());
   }
}

TEST_F(DictionaryValues, KeepTheirTypeAgainstTextThatIsNotOfIt)
{
   Dictionary_SetInt32(dictionary_, 7, 0, "v");
   Dictionary_SetStringFormat(dictionary_, "12abc", 0, "%c", 'v');
   EXPECT_TRUE(Messages().ends_with("Using value \"7\".\n"));
   EXPECT_EQ("7", Text("v"));
   Dictionary_SetDouble(dictionary_, 0.1, 0, "v");
   EXPECT_EQ("0.1", Text("v")) << "a number of another type brings its type";
   Dictionary_SetString(dictionary_, "text", 0, "v");
   EXPECT_EQ("0.1", Text("v"));
   EXPECT_NE("", Messages());
}

TEST_F(DictionaryValues, StayAsTheyAreOnceTheyHaveAType)
{
   Unmarshal("b=yes\nt=text\n");
   EXPECT_TRUE(Dictionary_GetBool(dictionary_, false, "b"));
   EXPECT_EQ(1, Dictionary_GetInt32(dictionary_, 5, "b"));
   EXPECT_EQ("fallback", String("b", "fallback"));
   EXPECT_EQ("text", String("t", "fallback"));
   EXPECT_EQ(5, Dictionary_GetInt32(dictionary_, 5, "t"));
   EXPECT_FALSE(Dictionary_GetBool(dictionary_, false, "t"));
   EXPECT_EQ("", Messages());
   EXPECT_EQ("TRUE", Text("b"));
}

TEST_F(DictionaryValues, ComeOfARealFallback)
{
   Dictionary *const d = dictionary_;
   EXPECT_FALSE(Dictionary_GetBool(d, false, "n") || Dictionary_GetInt32(d, 0, "n") != 0);
   EXPECT_TRUE(Dictionary_GetInt32(d, -1, "n") == -1 && Dictionary_GetTriState(d, -1, "n") == -1);
   EXPECT_EQ(0, Dictionary_GetDouble(d, -0.0, "n"));
   EXPECT_EQ("<null>", String("n"));
   EXPECT_FALSE(Dictionary_IsDefined(d, "n"));
   EXPECT_EQ(-1, Dictionary_GetInt64(d, -1, "y1"));
   EXPECT_EQ(5, Dictionary_GetInt32(d, 5, "y2"));
   EXPECT_EQ("", String("y3", ""));
   for (const char *name : {"y1", "y2", "y3"}) {
      EXPECT_TRUE(Dictionary_IsDefined(d, name)) << name;
   }
   EXPECT_EQ(5, Dictionary_GetInt32(d, 6, "y2"));
   EXPECT_FALSE(Dictionary_IsChanged(d));
   const auto refuse = [](const char *name, void *) { return !(ADD_FAILURE() << name, true); };
   Dictionary_ForEach(d, refuse, nullptr);
   Dictionary_SetInt32(d, 5, 0, "y2");
   EXPECT_TRUE(Dictionary_IsChanged(d)) << "asked for by name, it is to be saved";
}

TEST_F(DictionaryValues, AreKeptApartByProtectionUnderAKey)
{
   Dictionary_SetString(dictionary_, "open", DICTIONARY_PLAIN, "plain");
   Dictionary_SetString(dictionary_, "hidden", DICTIONARY_PROTECTED, "secret");
   EXPECT_EQ("hidden", String("secret")) << "no key, no walls";
   Dictionary_SetProtectionKey(dictionary_, this);
   EXPECT_EQ("<null>", String("secret"));
   EXPECT_EQ("other", Take(Dictionary_GetStringPlain(dictionary_, "other", "secret")));
   EXPECT_EQ("hidden", Take(Dictionary_GetStringProtected(dictionary_, nullptr, "secret")));
   EXPECT_EQ("<null>", Take(Dictionary_GetStringProtected(dictionary_, nullptr, "plain")));
   Dictionary_SetDefaultProtection(dictionary_, true);
   EXPECT_EQ("hidden", String("secret"));
   Dictionary_Dump(dictionary_);
   EXPECT_EQ("DICT                     plain = \"open\"\nDICT                    secret = <not printed>\n",
             Log());
}

TEST_F(DictionaryValues, AreChangedByRealDifferencesOnly)
{
   using Setters = std::vector<void (*)(Dictionary * dictionary)>;
   const Setters changes = {[](Dictionary *d) { Dictionary_SetString(d, "X", 0, "text"); },
                            [](Dictionary *d) { Dictionary_SetInt64(d, 17, 0, "hex"); },
                            [](Dictionary *d) { Dictionary_SetInt32(d, 0, 0, "text"); },
                            [](Dictionary *d) { Dictionary_SetString(d, "21", 0, "typed"); },
                            [](Dictionary *d) { Dictionary_SetString(d, "x", DICTIONARY_PROTECTED, "text"); },
                            [](Dictionary *d) { Dictionary_SetDouble(d, 0, 0, "new"); },
                            [](Dictionary *d) { Dictionary_Unset(d, "text"); }};
   const Setters same = {[](Dictionary *d) { Dictionary_SetString(d, "x", 0, "TEXT"); },
                         [](Dictionary *d) { Dictionary_SetString(d, nullptr, 0, "empty"); },
                         [](Dictionary *d) { Dictionary_SetInt32(d, 16, 0, "hex"); },
                         [](Dictionary *d) { Dictionary_SetBool(d, true, 0, "yes"); },
                         [](Dictionary *d) { Dictionary_SetTriState(d, -1, 0, "auto"); },
                         [](Dictionary *d) { Dictionary_SetFromString(d, "text=x", false, nullptr); },
                         [](Dictionary *d) { Dictionary_SetString(d, "020", 0, "typed"); },
                         [](Dictionary *d) { Dictionary_Unset(d, "none"); },
                         [](Dictionary *d) { Dictionary_Unset(d, "fleeting"); }};
   for (const Setters *setters : {&changes, &same}) {
      for (const auto &set : *setters) {
         ASSERT_TRUE(Unmarshal("text = x\nempty =\nhex = 0x10\nyes = y\nauto = auto\ntyped = 0x10\n"));
         EXPECT_EQ(16, Dictionary_GetInt32(dictionary_, 0, "typed"));
         EXPECT_EQ(5, Dictionary_GetInt32(dictionary_, 5, "fleeting"));
         set(dictionary_);
         EXPECT_EQ(setters == &changes, Dictionary_IsChanged(dictionary_)) << &set - setters->data();
      }
   }
}

TEST_F(DictionaryValues, AreNamedAsAsked)
{
   for (const char *text : {"a=b=c", "bare", "empty=", "A=2"}) {
      Put(text);
   }
   EXPECT_EQ("2", Text("a") + Text("bare") + Text("empty"));
   Dictionary_SetFromString(dictionary_, "A=3", true, messages_);
   EXPECT_EQ("2", Text("a"));
   EXPECT_EQ("alreadyDefined.string: Variable \"A\" is already defined.\n", Messages());

   Dictionary_Free(dictionary_);
   dictionary_ = Dictionary_CreateWithSize(2, true);
   const std::string name(1022, 'n');
   Dictionary_SetStringFormat(dictionary_, "1", 0, "%s\xC3\xA9", name.c_str());
   EXPECT_TRUE(Dictionary_IsDefined(dictionary_, name.c_str())) << "cut before the half character";
   for (const char *text : {"Guest.a=1", "guest.B=2", "guestx=3", "x=4", "X=5"}) {
      Put(text);
   }
   EXPECT_EQ("45", Text("x") + Text("X"));
   Dictionary_UnsetPrefix(dictionary_, "GUEST.");
   EXPECT_EQ("<null><null>3", Text("Guest.a") + Text("guest.B") + Text("guestx"));
   EXPECT_PANIC(Dictionary_Free(Dictionary_CreateWithSize(3, false)),
                "HashTable_Alloc only takes powers of 2");
}

TEST_F(DictionaryValues, AreDumpedWithoutTheSecrets)
{
   std::string expected;
   const auto set = [&](const std::string &name, const char *shown) {
      Dictionary_SetString(dictionary_, "x", 0, name.c_str());
      expected += "DICT " + std::string(25 - name.size(), ' ') + name + " = " + shown + "\n";
   };
   for (const char *name : {"dataFileKey", "ancestorDataFileKeys", "GuestInfo.x", "a.key", "annotation"}) {
      set(name, "<not printed>");
   }
   for (const char *name : {".key", "B.KEY", "dataFileKeyX"}) {
      set(name, "\"x\"");
   }
   Dictionary_SetBool(dictionary_, true, 0, "bool");
   Dictionary_SetTriState(dictionary_, -1, 0, "tri");
   Dictionary_SetInt32(dictionary_, -5, 0, "int");
   Dictionary_SetInt64(dictionary_, LLONG_MIN, 0, "long");
   Dictionary_SetDouble(dictionary_, 1.5, 0, "double");
   Dictionary_SetString(dictionary_, "gone", DICTIONARY_NOT_PERSISTENT, "fleeting");
   Dictionary_Dump(dictionary_);
   EXPECT_EQ(expected + "DICT                      bool = \"TRUE\"\n"
                        "DICT                       tri = \"DEFAULT\"\n"
                        "DICT                       int = \"-5\"\n"
                        "DICT                      long = \"-9223372036854775808\"\n"
                        "DICT                    double = \"1.5\"\n",
             Log());
}

TEST(DictionaryParse, KnowsTheWords)
{
   constexpr int none = 9;
   const std::pair<int, std::vector<const char *>> words[] = {
       {1, {"", "true", "T", "Yes", "y", "oN", "1"}},
       {0, {"FALSE", "f", "No", "N", "off", "0"}},
       {-1, {"Default", "dontcare", "AUTO"}},
       {none, {"2", "00", " true", "truee", "tru", nullptr}}};
   for (const auto &[value, texts] : words) {
      for (const char *text : texts) {
         bool badBool = false;
         bool badTri = false;
         EXPECT_EQ(value == 1, Dictionary_ParseBool(text, &badBool)) << text;
         EXPECT_EQ(value == none ? 0 : value, Dictionary_ParseTriState(text, &badTri)) << text;
         EXPECT_EQ(value == none || value == -1, badBool) << text;
         EXPECT_EQ(value == none, badTri) << text;
      }
   }
}

} // namespace
