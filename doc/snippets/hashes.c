/* Hashes and ciphers: an MD5 digest in steps; RC4 both ways (RC4 is kept for
   existing peers and is not a secure cipher). */
#include <VomKwz.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    md5_state_t md5;
    uint8_t digest[16];
    md5_init(&md5);
    md5_append(&md5, (const uint8_t*)"hello ", 6);
    md5_append(&md5, (const uint8_t*)"world", 5);
    md5_finish(&md5, digest);
    for (int i = 0; i < 16; ++i) printf("%02x", digest[i]);
    printf("\n");

    uint8_t message[] = "Attack at dawn";
    RC4Key key;
    RC4CodePrepare_Key((const uint8_t*)"Secret", 6, &key);
    RC4Code(message, 14, &key);
    RC4CodePrepare_Key((const uint8_t*)"Secret", 6, &key); /* the same key stream decodes */
    RC4Code(message, 14, &key);
    return memcmp(message, "Attack at dawn", 14) == 0 ? 0 : 1;
}
