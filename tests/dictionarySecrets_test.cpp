#include "lib/user/dictionary.h"
#include "tests/support/testSupport.h"

#include <cstring>
#include <malloc.h>
#include <string_view>

namespace {

/* A text that no released block may hold, while it is set. */
std::string_view sSecret;
int sLeakedSecrets = 0;

} // namespace

/* The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
extern "C" {
void __real_free(void *block);

void __wrap_free(void *block)
{
   if (block != nullptr && !sSecret.empty()) {
      const std::string_view content(static_cast<const char *>(block), malloc_usable_size(block));
      sLeakedSecrets += content.find(sSecret) != std::string_view::npos ? 1 : 0;
   }
   __real_free(block);
}
}
/* NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */

namespace {

TEST(DictionarySecrets, AreZeroedBeforeTheyAreReleased)
{
   const std::string secret = "S3cr3t-that-stays-in-no-block";
   const ScratchFolder folder;
   const std::string path = folder.Path("f");
   WriteFile(path, "# " + secret + "\na=" + secret + "\nb = \"|41" + secret + "\"\nc=" +
                       std::string(600, 'x') + secret + "\nd=\xE9" + secret + "\n.encoding = ISO-8859-1\n");
   sSecret = secret;
   sLeakedSecrets = 0;
   Dictionary *dictionary = Dictionary_Create();
   EXPECT_TRUE(Dictionary_Load(dictionary, path.c_str()));
   EXPECT_FALSE(Dictionary_GetBool(dictionary, false, "a"));
   Dictionary_SetString(dictionary, "other", 0, "b");
   Dictionary_SetString(dictionary, secret.c_str(), 0, "e");
   EXPECT_TRUE(Dictionary_WriteFile(dictionary, folder.Path("g").c_str()));
   Dictionary_Unset(dictionary, "c");
   EXPECT_FALSE(Dictionary_Append(dictionary, path.c_str()));
   EXPECT_FALSE(Dictionary_Unmarshal(dictionary, ("junk " + secret).c_str(), true, 0, nullptr));
   Dictionary_Free(dictionary);
   EXPECT_EQ(0, sLeakedSecrets);

   /* The watch itself works. */
   char *volatile unzeroed = strdup(secret.c_str());
   free(unzeroed);
   EXPECT_EQ(1, sLeakedSecrets);
   sSecret = {};
}

} // namespace
