/* Every table is asked the same: given a C string, as our callers have it. 100 keys in 128 buckets and 10,000 in
   16,384; the peers are told how many keys will come. Fill makes a table, inserts all keys and frees it;
   Insert times the inserts alone, into a table that has been cleared; Hit and Miss look up as many keys as
   the table has, in an order of their own, through strings that are not those inserted. Time is for all keys
   together, items_per_second for one. The peers have no hash without regard to case: theirs call tolower for
   each byte. */

#include "bench/processorTime.h"
#include "lib/misc/hashTable.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cctype>
#include <cstring>
#include <glib.h>
#include <random>
#include <string>
#include <string_view>
#include <strings.h>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

/* Names such as encodings, files and settings have: 4 to 30 bytes, long common beginnings among them. */
std::vector<std::string> Names(size_t count, const char *mark)
{
   static constexpr const char *beginnings[] = {
       "cp", "ISO-8859-", "windows-", "lib", "Preferences.display.", "ebcdic-"};
   std::vector<std::string> names;
   for (size_t i = 0; i < count; i++) {
      names.push_back(beginnings[i % std::size(beginnings)] + std::to_string(i * 37) + mark);
   }
   std::shuffle(names.begin(), names.end(), std::mt19937(4711));
   return names;
}

template <uint32_t FLAGS> class Ours {
 public:
   explicit Ours(size_t count)
       : table_(HashTable_Alloc(static_cast<uint32_t>(std::bit_ceil(count)), FLAGS, nullptr))
   {
   }

   ~Ours()
   {
      HashTable_Free(table_);
   }

   void Clear()
   {
      HashTable_Clear(table_);
   }

   bool Insert(const char *key, void *value)
   {
      return HashTable_Insert(table_, key, value);
   }

   bool Find(const char *key, void **value) const
   {
      return HashTable_Lookup(table_, key, value);
   }

 private:
   HashTable *table_;
};

guint HashNoCase(gconstpointer key)
{
   guint hash = 5381;
   for (const auto *c = static_cast<const unsigned char *>(key); *c != 0; c++) {
      hash = hash * 33 + static_cast<guint>(tolower(*c));
   }
   return hash;
}

gboolean EqualNoCase(gconstpointer a, gconstpointer b)
{
   return strcasecmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
}

template <bool NO_CASE, bool COPY> class Glib {
 public:
   explicit Glib(size_t)
       : table_(g_hash_table_new_full(NO_CASE ? HashNoCase : g_str_hash, NO_CASE ? EqualNoCase : g_str_equal,
                                      COPY ? g_free : nullptr, nullptr))
   {
   }

   ~Glib()
   {
      g_hash_table_destroy(table_);
   }

   void Clear()
   {
      g_hash_table_remove_all(table_);
   }

   bool Insert(const char *key, void *value)
   {
      return g_hash_table_insert(table_, COPY ? g_strdup(key) : const_cast<char *>(key), value);
   }

   bool Find(const char *key, void **value) const
   {
      return g_hash_table_lookup_extended(table_, key, nullptr, value);
   }

 private:
   GHashTable *table_;
};

struct NoCaseHash {
   size_t operator()(std::string_view key) const
   {
      size_t hash = 14695981039346656037U;
      for (const char c : key) {
         hash = (hash ^ static_cast<size_t>(tolower(static_cast<unsigned char>(c)))) * 1099511628211U;
      }
      return hash;
   }
};

struct NoCaseEqual {
   bool operator()(std::string_view a, std::string_view b) const
   {
      return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
   }
};

template <typename Map> class Standard {
 public:
   explicit Standard(size_t count) : count_(count)
   {
      map_.reserve(count);
   }

   void Clear()
   {
      map_.clear();
      map_.reserve(count_);
   }

   bool Insert(const char *key, void *value)
   {
      return map_.emplace(key, value).second;
   }

   bool Find(const char *key, void **value) const
   {
      const auto found = map_.find(typename Map::key_type(key));
      if (found == map_.end()) {
         return false;
      }
      *value = found->second;
      return true;
   }

 private:
   Map map_;
   size_t count_;
};

using View = std::string_view;
using OurPlain = Ours<HASH_STRING_KEY>;
using OurAtomic = Ours<HASH_STRING_KEY | HASH_FLAG_ATOMIC>;
using OurNoCase = Ours<HASH_ISTRING_KEY>;
using OurCopies = Ours<HASH_STRING_KEY | HASH_FLAG_COPYKEY>;
using GlibPlain = Glib<false, false>;
using GlibNoCase = Glib<true, false>;
using GlibCopies = Glib<false, true>;
using UnorderedPlain = Standard<std::unordered_map<View, void *>>;
using UnorderedNoCase = Standard<std::unordered_map<View, void *, NoCaseHash, NoCaseEqual>>;
using UnorderedCopies = Standard<std::unordered_map<std::string, void *>>;
using NodePlain = Standard<absl::node_hash_map<View, void *>>;
using NodeNoCase = Standard<absl::node_hash_map<View, void *, NoCaseHash, NoCaseEqual>>;
using NodeCopies = Standard<absl::node_hash_map<std::string, void *>>;
using FlatPlain = Standard<absl::flat_hash_map<View, void *>>;
using FlatNoCase = Standard<absl::flat_hash_map<View, void *, NoCaseHash, NoCaseEqual>>;

void Finish(benchmark::State &state)
{
   state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Table> void InsertAll(Table *table, const std::vector<std::string> &names)
{
   for (const std::string &name : names) {
      table->Insert(name.c_str(), nullptr);
   }
}

template <typename Table> void Fill(benchmark::State &state)
{
   const std::vector<std::string> names = Names(static_cast<size_t>(state.range(0)), "");
   for ([[maybe_unused]] auto iteration : state) {
      Table table(names.size());
      InsertAll(&table, names);
      benchmark::ClobberMemory();
   }
   Finish(state);
}

template <typename Table> void Insert(benchmark::State &state)
{
   const std::vector<std::string> names = Names(static_cast<size_t>(state.range(0)), "");
   Table table(names.size());
   for ([[maybe_unused]] auto iteration : state) {
      table.Clear();
      const double before = ProcessorSecondsOf(0);
      InsertAll(&table, names);
      state.SetIterationTime(ProcessorSecondsOf(0) - before);
   }
   Finish(state);
}

template <typename Table> void Find(benchmark::State &state, const char *mark)
{
   const auto count = static_cast<size_t>(state.range(0));
   const std::vector<std::string> names = Names(count, "");
   std::vector<std::string> wanted = Names(count, mark);
   std::shuffle(wanted.begin(), wanted.end(), std::mt19937(42));
   Table table(count);
   InsertAll(&table, names);
   size_t found = 0;
   for ([[maybe_unused]] auto iteration : state) {
      for (const std::string &name : wanted) {
         void *value = nullptr;
         found += table.Find(name.c_str(), &value) ? 1 : 0;
         benchmark::DoNotOptimize(value);
      }
   }
   if (found != (*mark == '\0' ? count * static_cast<size_t>(state.iterations()) : 0)) {
      state.SkipWithError("wrong answers");
   }
   Finish(state);
}

template <typename Table> void Hit(benchmark::State &state)
{
   Find<Table>(state, "");
}

template <typename Table> void Miss(benchmark::State &state)
{
   Find<Table>(state, "x");
}

#define BENCHMARK_TABLE(kind, implementation, table)                                                         \
   BENCHMARK_TEMPLATE(Fill, table)->Name("hash/Fill" kind "/" implementation)->Arg(100)->Arg(10000);         \
   BENCHMARK_TEMPLATE(Insert, table)                                                                         \
       ->Name("hash/Insert" kind "/" implementation)                                                         \
       ->Arg(100)                                                                                            \
       ->Arg(10000)                                                                                          \
       ->UseManualTime();                                                                                    \
   BENCHMARK_TEMPLATE(Hit, table)->Name("hash/Hit" kind "/" implementation)->Arg(100)->Arg(10000);           \
   BENCHMARK_TEMPLATE(Miss, table)->Name("hash/Miss" kind "/" implementation)->Arg(100)->Arg(10000)

BENCHMARK_TABLE("", "tessel", OurPlain);
BENCHMARK_TABLE("", "tessel-atomic", OurAtomic);
BENCHMARK_TABLE("", "glib", GlibPlain);
BENCHMARK_TABLE("", "libstdc++", UnorderedPlain);
BENCHMARK_TABLE("", "absl-node", NodePlain);
BENCHMARK_TABLE("", "absl-flat", FlatPlain);

BENCHMARK_TABLE("NoCase", "tessel", OurNoCase);
BENCHMARK_TABLE("NoCase", "glib", GlibNoCase);
BENCHMARK_TABLE("NoCase", "libstdc++", UnorderedNoCase);
BENCHMARK_TABLE("NoCase", "absl-node", NodeNoCase);
BENCHMARK_TABLE("NoCase", "absl-flat", FlatNoCase);

#define BENCHMARK_COPIES(implementation, table)                                                              \
   BENCHMARK_TEMPLATE(Fill, table)->Name("hash/FillCopies/" implementation)->Arg(100)->Arg(10000)

BENCHMARK_COPIES("tessel", OurCopies);
BENCHMARK_COPIES("glib", GlibCopies);
BENCHMARK_COPIES("libstdc++", UnorderedCopies);
BENCHMARK_COPIES("absl-node", NodeCopies);

/* A key costs the same however many there are, if the buckets are as many. */
void Sizes(benchmark::internal::Benchmark *bench)
{
   bench->RangeMultiplier(10)->Range(100, 100000);
}

BENCHMARK_TEMPLATE(Hit, OurPlain)->Name("hash-grows/Hit/tessel")->Apply(Sizes);
BENCHMARK_TEMPLATE(Hit, UnorderedPlain)->Name("hash-grows/Hit/libstdc++")->Apply(Sizes);
BENCHMARK_TEMPLATE(Fill, OurPlain)->Name("hash-grows/Fill/tessel")->Apply(Sizes);
BENCHMARK_TEMPLATE(Fill, UnorderedPlain)->Name("hash-grows/Fill/libstdc++")->Apply(Sizes);

} // namespace
