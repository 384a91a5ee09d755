/* The same OpenSSL server context the CAP builds, and nothing else
 * (BENCH_CIPHERS is given by scripts/bench). */
#include <openssl/ssl.h>
#include <stdio.h>
#include <unistd.h>

int main(void)
{
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, NULL);
    SSL_CTX *c = SSL_CTX_new(TLS_server_method());
    if (!c || SSL_CTX_set_cipher_list(c, BENCH_CIPHERS) != 1)
        return 1;
    SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION);
    if (SSL_CTX_load_verify_locations(c, "/usr/share/veltrasso/cc/mq_a1", NULL) != 1 ||
        SSL_CTX_use_certificate_chain_file(c, "/tmp/mq/cc/veltrasso_ct") != 1 ||
        SSL_CTX_use_PrivateKey_file(c, "/tmp/mq/cc/veltrasso_ky", SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(c) != 1)
        return 2;
    fprintf(stderr, "bare: ready\n");
    for (;;)
        pause();
}
