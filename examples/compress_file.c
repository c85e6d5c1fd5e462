/* compress_file.c - compress a file into a "#LZ2" container and hash it.
 *
 *   compress_file FILE      writes FILE.lz2, reads it back, compares, and
 *                           prints the sizes, the MD5 digest of FILE and the
 *                           library's text hash of the container
 *
 * The streaming functions read and write through the caller's callbacks one
 * chunk at a time, so a file larger than memory works too.
 *
 *   cc -std=c11 compress_file.c $(pkg-config --cflags --libs VomKwz) -o compress_file
 */
#include <VomKwz.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Both callbacks get the one context: here the two files. */
struct files {
    FILE* in;
    FILE* out;
};

/* The callbacks return a count of bytes (0 at the end of the input), or a
 * negative value for an error. */
static int32_t read_file(void* context, void* buffer, int32_t size) {
    struct files* f = context;
    size_t n = fread(buffer, 1, (size_t)size, f->in);
    return ferror(f->in) ? -1 : (int32_t)n;
}

static int32_t write_file(void* context, const void* buffer, int32_t size) {
    struct files* f = context;
    return fwrite(buffer, 1, (size_t)size, f->out) == (size_t)size ? size : -1;
}

/* Reads a whole file into a malloc'd block; NULL on failure. */
static unsigned char* slurp(const char* path, long* size) {
    FILE* f = fopen(path, "rb");
    unsigned char* bytes = NULL;
    if (!f) return NULL;
    if (fseek(f, 0, SEEK_END) == 0 && (*size = ftell(f)) >= 0 && fseek(f, 0, SEEK_SET) == 0) {
        bytes = malloc((size_t)*size + 1);
        if (bytes && fread(bytes, 1, (size_t)*size, f) != (size_t)*size) {
            free(bytes);
            bytes = NULL;
        }
    }
    fclose(f);
    return bytes;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: compress_file FILE\n");
        return 2;
    }
    const char* path = argv[1];
    char packedPath[4096];
    if (snprintf(packedPath, sizeof packedPath, "%s.lz2", path) >= (int)sizeof packedPath) return 2;

    /* 1. FILE -> FILE.lz2 through the streaming writer. */
    struct files f = {fopen(path, "rb"), fopen(packedPath, "wb")};
    bool ok = f.in && f.out && LZOPCompress(&f, read_file, write_file);
    if (f.in) fclose(f.in);
    if (f.out && fclose(f.out) != 0) ok = false;
    if (!ok) {
        fprintf(stderr, "compress_file: cannot compress %s into %s\n", path, packedPath);
        return 1;
    }

    /* 2. Read both files whole: the original and its container. */
    long size = 0, packedSize = 0;
    unsigned char* original = slurp(path, &size);
    unsigned char* packed = slurp(packedPath, &packedSize);
    void* back = NULL;
    int32_t backLength = 0;
    int status = 1;
    if (!original || !packed) {
        fprintf(stderr, "compress_file: cannot read the files back\n");
        goto done;
    }

    /* 3. The block decoder checks every chunk against the length it is given. */
    if (KWZDataDeCompress((int32_t)packedSize, packed, &backLength, &back) != 0 || backLength != size ||
        memcmp(back, original, (size_t)size) != 0) {
        fprintf(stderr, "compress_file: the container does not give the file back\n");
        goto done;
    }

    /* 4. MD5 of the original, and the library's own text hash of the container. */
    md5_state_t md5;
    uint8_t digest[16];
    md5_init(&md5);
    md5_append(&md5, original, (int32_t)size);
    md5_finish(&md5, digest);
    char hash[33];
    if (KWZDataHash((int32_t)packedSize, packed, hash, NULL) != 0) goto done;

    printf("%s: %ld bytes -> %s: %ld bytes (%.1f%%), read back identical\n", path, size, packedPath, packedSize,
           size ? 100.0 * (double)packedSize / (double)size : 0.0);
    printf("md5 of the file:            ");
    for (int i = 0; i < 16; ++i) printf("%02x", digest[i]);
    printf("\nKWZDataHash of the container: %s\n", hash);
    status = 0;

done:
    KWMemFree(back);
    free(original);
    free(packed);
    return status;
}
