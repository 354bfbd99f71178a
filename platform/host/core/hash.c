/* Hashes from string to string: open addressing over texts in an arena. */
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>

#include "core/internal.h"

struct entry {
  const char *key; /* NULL: free */
  const char *value;
  uint64_t hash;
};

struct _tag_VEMOSZHASH {
  struct entry *entries;
  size_t room; /* a power of two */
  size_t count;
  struct vemo_arena arena;
};

/* SipHash-1-3 (Aumasson and Bernstein): keys come from requests and packages, and
 * nobody may choose them so that they collide. */
static uint64_t rotate(uint64_t x, int bits) {
  return x << bits | x >> (64 - bits);
}

static void sip_round(uint64_t v[4]) {
  v[0] += v[1];
  v[2] += v[3];
  v[1] = rotate(v[1], 13) ^ v[0];
  v[3] = rotate(v[3], 16) ^ v[2];
  v[0] = rotate(v[0], 32);
  v[2] += v[1];
  v[0] += v[3];
  v[1] = rotate(v[1], 17) ^ v[2];
  v[3] = rotate(v[3], 21) ^ v[0];
  v[2] = rotate(v[2], 32);
}

static uint64_t word_at(const unsigned char *data, size_t size) {
  uint64_t word = 0;

  for (size_t i = 0; i < size; i++)
    word |= (uint64_t)data[i] << (8 * i);
  return word;
}

static uint64_t sip_hash(const uint64_t seed[2], const void *data, size_t size) {
  const unsigned char *bytes = data;
  uint64_t v[4] = {seed[0] ^ 0x736f6d6570736575, seed[1] ^ 0x646f72616e646f6d,
                   seed[0] ^ 0x6c7967656e657261, seed[1] ^ 0x7465646279746573};
  size_t left = size;

  for (; left >= 8; left -= 8, bytes += 8) {
    const uint64_t word = word_at(bytes, 8);
    v[3] ^= word;
    sip_round(v);
    v[0] ^= word;
  }
  const uint64_t last = word_at(bytes, left) | (uint64_t)size << 56;
  v[3] ^= last;
  sip_round(v);
  v[0] ^= last;
  v[2] ^= 0xff;
  for (int i = 0; i < 3; i++)
    sip_round(v);
  return v[0] ^ v[1] ^ v[2] ^ v[3];
}

uint64_t vemo_hash_bytes(const void *data, size_t size) {
  static uint64_t seed[2];
  static int seeded;

  if (!seeded) {
    /* 16 random bytes that the kernel gives every process: no system call. */
    memcpy(seed, (const void *)getauxval(AT_RANDOM), sizeof seed);
    seeded = 1;
  }
  return sip_hash(seed, data, size);
}

uint64_t vemo_hash_stable(const void *data, size_t size) {
  static const uint64_t seed[2] = {0, 0};

  return sip_hash(seed, data, size);
}

VEMOSZHASH *VLIBCSzHashAlloc(int capacity) {
  VEMOSZHASH *hash = calloc(1, sizeof *hash);

  if (hash == NULL) goto no_memory;
  hash->room = 8;
  while (capacity > 0 && capacity <= 65536 && hash->room * 3 / 4 < (size_t)capacity) {
    hash->room *= 2;
  }
  hash->entries = calloc(hash->room, sizeof *hash->entries);
  if (hash->entries == NULL) goto no_memory;
  return hash;

no_memory:
  free(hash);
  VEMO_FAIL(VEMOERR_NO_MEMORY);
  return NULL;
}

/* The entry of the key, or the free one where it belongs. */
static struct entry *find(const struct entry *entries, size_t room, const char *key, size_t size,
                          uint64_t hash) {
  for (size_t i = (size_t)hash & (room - 1);; i = (i + 1) & (room - 1)) {
    const struct entry *entry = &entries[i];
    if (entry->key == NULL) return (struct entry *)entry;
    if (entry->hash == hash && strncmp(entry->key, key, size) == 0 && entry->key[size] == '\0') {
      return (struct entry *)entry;
    }
  }
}

const char *VLIBCSzHashGetValue(const VEMOSZHASH *hash, const char *key) {
  if (hash == NULL || key == NULL) return NULL;
  const size_t size = strlen(key);
  return find(hash->entries, hash->room, key, size, vemo_hash_bytes(key, size))->value;
}

static int grow(VEMOSZHASH *hash) {
  const size_t room = hash->room * 2;
  struct entry *entries = calloc(room, sizeof *entries);

  if (entries == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return -1;
  }
  for (size_t i = 0; i < hash->room; i++) {
    const struct entry *old = &hash->entries[i];
    if (old->key == NULL) continue;
    *find(entries, room, old->key, strlen(old->key), old->hash) = *old;
  }
  free(hash->entries);
  hash->entries = entries;
  hash->room = room;
  return 0;
}

int vemo_hash_set(VEMOSZHASH *hash, const char *key, size_t key_size, const char *value,
                  size_t value_size, int keep_first) {
  const uint64_t sum = vemo_hash_bytes(key, key_size);
  struct entry *entry = find(hash->entries, hash->room, key, key_size, sum);

  if (entry->key != NULL && keep_first) return 0;
  if (entry->key == NULL && hash->count + 1 > hash->room * 3 / 4) {
    if (grow(hash) != 0) return -1;
    entry = find(hash->entries, hash->room, key, key_size, sum);
  }
  /* The old value stays where it is: its pointer may be in somebody's hands. */
  const char *copy = vemo_arena_copy(&hash->arena, value, value_size);
  if (copy == NULL) return -1;
  if (entry->key == NULL) {
    const char *name = vemo_arena_copy(&hash->arena, key, key_size);
    if (name == NULL) return -1;
    *entry = (struct entry){name, NULL, sum};
    hash->count++;
  }
  entry->value = copy;
  return 0;
}

int VLIBCSzHashSetValue(VEMOSZHASH *hash, const char *key, const char *value) {
  if (hash == NULL || key == NULL || value == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  return vemo_hash_set(hash, key, strlen(key), value, strlen(value), 0);
}

int vemo_hash_each(const VEMOSZHASH *hash,
                   int (*found)(const char *key, const char *value, void *data), void *data) {
  for (size_t i = 0; i < hash->room; i++) {
    const struct entry *entry = &hash->entries[i];
    const int result = entry->key == NULL ? 0 : found(entry->key, entry->value, data);
    if (result != 0) return result;
  }
  return 0;
}

size_t vemo_hash_size(const VEMOSZHASH *hash) {
  return hash == NULL ? 0 : hash->count;
}

void vemo_hash_forget(VEMOSZHASH *hash) {
  memset(hash->entries, 0, hash->room * sizeof *hash->entries);
  hash->count = 0;
}

void VLIBCHashRemoveAll(VEMOSZHASH *hash) {
  if (hash == NULL) return;
  vemo_hash_forget(hash);
  vemo_arena_free(&hash->arena);
}

void VLIBCSzHashFree(VEMOSZHASH *hash) {
  if (hash == NULL) return;
  vemo_arena_free(&hash->arena);
  free(hash->entries);
  free(hash);
}
