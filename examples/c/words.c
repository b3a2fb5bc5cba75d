// Counts the words of standard input in a hash table of the library, and tells the sum in a log
// line with a time stamp.
#include <stdio.h>

#include <povzel/tvhash.h>
#include <povzel/utltime.h>

int main(void) {
  TvHashTable counts;
  TvInitHashTable(&counts, 0);  // keys are strings

  char word[256];
  long total = 0;
  while (scanf("%255s", word) == 1) {
    long isNew;
    TvHashEntry* entry = counts.createProc(&counts, word, &isNew);
    if (entry == NULL) {
      fputs("words: memory is short\n", stderr);
      return 1;
    }
    // The value is the program's own: here a number, null at first.
    entry->value = (char*)entry->value + 1;
    ++total;
  }

  TvHashSearch search;
  for (TvHashEntry* entry = TvFirstHashEntry(&counts, &search); entry != NULL;
       entry = TvNextHashEntry(&search)) {
    printf("%5ld %s\n", (long)entry->value, entry->key.string);
  }

  char summary[80];
  snprintf(summary, sizeof summary, "%ld words, %ld different", total, counts.numEntries);
  UtlTimeStampMs_s_flush(stderr, summary, 1);
  TvDeleteHashTable(&counts);
  return 0;
}
