/* Memory that is released all at once: a chain of blocks. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/internal.h"

struct vemo_arena_block {
  struct vemo_arena_block *next;
  size_t used;
  size_t size;
  max_align_t data[];
};

enum { BLOCK_SIZE = 4096 - 64 };

static struct vemo_arena_block *new_block(size_t size) {
  struct vemo_arena_block *block = calloc(1, sizeof *block + size);

  if (block == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  block->size = size;
  return block;
}

void *vemo_arena_alloc(struct vemo_arena *arena, size_t size) {
  const size_t align = _Alignof(max_align_t);
  struct vemo_arena_block *block = arena->blocks;

  if (size > SIZE_MAX / 2) {
    errno = ENOMEM;
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  size = (size + align - 1) / align * align;
  if (block == NULL || block->size - block->used < size) {
    block = new_block(size > BLOCK_SIZE ? size : BLOCK_SIZE);
    if (block == NULL) return NULL;
    if (size > BLOCK_SIZE && arena->blocks != NULL) {
      /* A block of its own, behind the one that still has room. */
      block->next = arena->blocks->next;
      arena->blocks->next = block;
    } else {
      block->next = arena->blocks;
      arena->blocks = block;
    }
  }
  void *memory = (char *)block->data + block->used;
  block->used += size;
  return memory;
}

char *vemo_arena_copy(struct vemo_arena *arena, const char *text, size_t size) {
  char *copy = vemo_arena_alloc(arena, size + 1);

  if (copy != NULL) memcpy(copy, text, size);
  return copy;
}

void vemo_arena_free(struct vemo_arena *arena) {
  struct vemo_arena_block *block = arena->blocks;

  arena->blocks = NULL;
  while (block != NULL) {
    struct vemo_arena_block *next = block->next;
    free(block);
    block = next;
  }
}
