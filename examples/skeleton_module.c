/*
 * skeleton_module.c: a complete mechanism module, written to be read.
 *
 * THIS IS A TEACHING EXAMPLE, NOT A MECHANISM TO DEPLOY. Both parties prove
 * that they know one pre-shared key, taken from the environment variable
 * QV_SKELETON_KEY; whoever knows the key may claim any user name, nothing is
 * encrypted (sealed data is only authenticated), and SHA-1 stands in for a
 * modern hash. It exists to show every routine of qv_sec_mpm.h doing what
 * the library expects (see docs/writing-a-module.md), and `qvsec module check`
 * passes it.
 *
 * The exchange, two rounds:
 *   client  mpm_start_sec_context    -> "SKH1" Nc[16] n name[n]      status 1
 *   server  mpm_receive_sec_context  -> "SKR1" Ns[16] proof_s[20]    status 1
 *   client  mpm_complete_sec_context -> "SKP1" proof_c[20]           status 0
 *   server  mpm_receive_sec_context  -> (no output)                  status 0
 * with proof_x = HMAC(K, x Nc Ns name) and the session key HMAC(K, "K" Nc Ns),
 * K = SHA-1 of the variable's value. Sealed data: sequence number (8 bytes,
 * big-endian), the data, HMAC(session, direction seq data); the receiver
 * accepts each sequence number once, in order.
 *
 * The SKELETON_MISTAKE_* switches plant the mistakes module authors make, for
 * the checker's own tests; a real module has none of them.
 */
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>
#ifdef SKELETON_MISTAKE_FOREIGN_ALLOCATOR
#include <sys/mman.h>
#endif

#include "qv_sec_mpm.h"
#include "vorpkit.h"

#define KEY_VARIABLE "QV_SKELETON_KEY"
#define NONCE_LEN 16
#define MAC_LEN VORP_SHA_DIGEST_LEN
#define NAME_MAX_LEN 255
#define LIFETIME 3600
#define CTX_FLAG_MUTUAL 0x1u /* both parties proved the key */

/* Major statuses of failures: never 1 or 2 (those mean "continue" and "make
 * the context unauthenticated"), never 6, 24, 34 or 36 except with their
 * meaning. The minor status says more where it helps. */
enum {
    SK_NO_KEY = 16,      /* QV_SKELETON_KEY unset or empty */
    SK_BAD_TOKEN = 17,   /* malformed bytes from the peer */
    SK_BAD_PROOF = 18,   /* the peer does not know the key */
    SK_NO_MEMORY = 19,
    SK_BAD_STATE = 20,   /* a routine called out of turn */
    SK_BAD_ARGUMENT = 21,
    SK_UNSUPPORTED = 22, /* mpm_login_as_user: there are no passwords */
};

/* How establishment fails. The mistake variant answers 2, which does not
 * mean "failed": it asks for an unauthenticated context. */
#ifdef SKELETON_MISTAKE_STATUS_2
#define EXCHANGE_FAILED(status) 2u
#else
#define EXCHANGE_FAILED(status) (status)
#endif

enum role { ROLE_CLIENT, ROLE_SERVER, ROLE_IDENTITY };
enum phase { PH_NEW, PH_SENT_HELLO, PH_SENT_REPLY, PH_COMPLETE };

/* The service handle (mpm_start .. mpm_end). */
struct service {
    char *login_name; /* from mpm_login_as_service; unused by this mechanism */
};

/* A context handle: security context or identity context. One thread at a
 * time uses a context, so it needs no lock of its own. */
struct context {
    enum role role;
    enum phase phase;
    unsigned char nc[NONCE_LEN], ns[NONCE_LEN];
    unsigned char session[MAC_LEN];
    unsigned long long send_seq, recv_seq;
    char name[NAME_MAX_LEN + 1]; /* the client's user name */
};

static const unsigned char kHello[4] = {'S', 'K', 'H', '1'}, kReply[4] = {'S', 'K', 'R', '1'},
                           kProof[4] = {'S', 'K', 'P', '1'};

/* ---- helpers ---- */

/* HMAC-SHA-1 of the concatenated parts under a 20-byte key. */
static int hmac(const unsigned char key[MAC_LEN], const struct iovec *parts, int n, unsigned char out[MAC_LEN]) {
    size_t total = 64;
    for (int i = 0; i < n; ++i) total += parts[i].iov_len;
    unsigned char *buf = malloc(total), outer[64 + MAC_LEN];
    if (buf == NULL) return -1;
    memset(buf, 0x36, 64);
    memset(outer, 0x5c, 64);
    for (int i = 0; i < MAC_LEN; ++i) buf[i] ^= key[i], outer[i] ^= key[i];
    size_t at = 64;
    for (int i = 0; i < n; ++i) {
        if (parts[i].iov_len > 0) memcpy(buf + at, parts[i].iov_base, parts[i].iov_len);
        at += parts[i].iov_len;
    }
    Vorp_sha(NULL, buf, (qv_uint32_t)total, outer + 64);
    Vorp_sha(NULL, outer, sizeof outer, out);
    memset(buf, 0, total);
    free(buf);
    memset(outer, 0, sizeof outer);
    return 0;
}

/* K from the environment; read at each use so a test may change it. */
static int shared_key(unsigned char key[MAC_LEN]) {
    const char *v = getenv(KEY_VARIABLE);
    if (v == NULL || *v == '\0') return -1;
    Vorp_sha(NULL, v, (qv_uint32_t)strlen(v), key);
    return 0;
}

/* Differences in constant time: secrets are never compared with memcmp. */
static int differ(const unsigned char *a, const unsigned char *b, size_t n) {
    unsigned char d = 0;
    for (size_t i = 0; i < n; ++i) d |= (unsigned char)(a[i] ^ b[i]);
    return d != 0;
}

/* A proof or the session key: HMAC(K, label Nc Ns [name]). */
static int derive(const struct context *c, const char *label, int with_name, unsigned char out[MAC_LEN]) {
    unsigned char key[MAC_LEN];
    if (shared_key(key) != 0) return SK_NO_KEY;
    struct iovec parts[4] = {{(void *)label, 1}, {(void *)c->nc, NONCE_LEN}, {(void *)c->ns, NONCE_LEN},
                             {(void *)c->name, with_name ? strlen(c->name) : 0}};
    int rc = hmac(key, parts, 4, out);
    memset(key, 0, sizeof key);
    return rc == 0 ? 0 : SK_NO_MEMORY;
}

/* Every output buffer is malloc memory: the library frees some of them with
 * mpm_release_buffer and hands mpm_process_data's to the application, which
 * frees it with free(). */
static qv_uint32_t give(sec_buffer_t out, const void *a, size_t alen, const void *b, size_t blen) {
    out->length = 0;
    out->value = NULL;
    if (alen + blen > 0x7fffffff) return SK_BAD_ARGUMENT;
    unsigned char *p = malloc(alen + blen);
    if (p == NULL) return SK_NO_MEMORY;
    memcpy(p, a, alen);
    if (blen > 0) memcpy(p + alen, b, blen);
    out->value = p;
    out->length = (qv_int32_t)(alen + blen);
    return 0;
}

static struct context *new_context(void **slot, enum role role) {
    if (*slot != NULL) return *slot; /* made earlier by mpm_set_ctx_attribute */
    struct context *c = calloc(1, sizeof *c);
    if (c != NULL) c->role = role;
    *slot = c;
    return c;
}

static int fresh_nonce(unsigned char n[NONCE_LEN]) {
    return getrandom(n, NONCE_LEN, 0) == NONCE_LEN ? 0 : -1;
}

/* The buffer-size protocol of the name routines. */
static qv_uint32_t answer(const void *bytes, qv_int32_t n, qv_int32_t *length, char *out) {
    if (length == NULL) return SK_BAD_ARGUMENT;
    if (n > *length) {
        *length = n;
        return MPM_S_BUFFER_TOO_SMALL;
    }
    if (n > 0) memcpy(out, bytes, (size_t)n);
    *length = n;
    return 0;
}

static void big_endian(unsigned long long v, unsigned char out[8]) {
    for (int i = 7; i >= 0; --i, v >>= 8) out[i] = (unsigned char)v;
}

/* ---- loading and the service ---- */

void mpm_init(void) { /* nothing process-wide to set up */ }

qv_uint32_t mpm_start(qv_uint32_t *min_stat, qv_uint32_t flags, void **token) {
    (void)flags;
    *min_stat = 0;
    *token = calloc(1, sizeof(struct service));
    return *token != NULL ? 0 : SK_NO_MEMORY;
}

qv_uint32_t mpm_end(qv_uint32_t *min_stat, qv_uint32_t flags, void *token) {
    (void)flags;
    *min_stat = 0;
    struct service *s = token;
    if (s != NULL) free(s->login_name);
    free(s);
    return 0;
}

qv_uint32_t mpm_service_cleanup(qv_uint32_t *min_stat, void *token, qv_uint32_t flags) {
    (void)flags;
    *min_stat = 0;
    struct service *s = token;
    if (s != NULL) {
        free(s->login_name);
        s->login_name = NULL;
    }
    return 0;
}

qv_uint32_t mpm_login_as_service(qv_uint32_t *min_stat, char *svc_name, void *token) {
    *min_stat = 0;
    struct service *s = token;
    char *copy = strdup(svc_name);
    if (copy == NULL) return SK_NO_MEMORY;
    free(s->login_name);
    s->login_name = copy;
    return 0;
}

qv_uint32_t mpm_login_as_user(qv_uint32_t *min_stat, sec_buffer_t id, void *authenticator, qv_uint32_t flags,
                              void *token) {
    (void)id, (void)authenticator, (void)flags, (void)token;
    *min_stat = 0;
    return SK_UNSUPPORTED;
}

qv_uint32_t mpm_renew_identity(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    (void)token;
    *min_stat = 0;
    *lifetime = LIFETIME;
    return 0;
}

qv_uint32_t mpm_get_target_name(qv_uint32_t *min_stat, void *token, char *service, char *host, qv_int32_t *length,
                                char *name) {
    (void)token;
    *min_stat = 0;
    size_t n = strlen(service) + 1 + strlen(host) + 1;
    char *s = malloc(n);
    if (s == NULL) return SK_NO_MEMORY;
    strcpy(s, service);
    strcat(s, "@");
    strcat(s, host);
    qv_uint32_t rc = answer(s, (qv_int32_t)n, length, name);
    free(s);
    return rc;
}

/* ---- context establishment ---- */

#ifndef SKELETON_MISTAKE_NO_SET_CTX_ATTRIBUTE
/* The socket means nothing to this mechanism, but the library calls this
 * for every context prepared by sec_setup_socket: accept it. */
qv_uint32_t mpm_set_ctx_attribute(qv_uint32_t *min_stat, void *svc_tkn, qv_uint32_t attr, void *data,
                                  void **ctx_tkn) {
    (void)svc_tkn, (void)data;
    *min_stat = attr;
    if (attr != MPM_ATTR_SOCKET_INFO) return SK_BAD_ARGUMENT;
    *min_stat = 0;
    /* The role is not known yet: the next routine sets it. */
    return new_context(ctx_tkn, ROLE_CLIENT) != NULL ? 0 : SK_NO_MEMORY;
}
#endif

qv_uint32_t mpm_start_sec_context(qv_uint32_t *min_stat, void *sec_token, char *trg_svc, char *trg_host,
                                  qv_uint32_t flags, void **ctx_token, sec_buffer_t cbuff) {
    (void)sec_token, (void)trg_svc, (void)trg_host, (void)flags;
    *min_stat = 0;
    unsigned char key[MAC_LEN];
    if (shared_key(key) != 0) return EXCHANGE_FAILED(SK_NO_KEY);  /* before any handle exists */
    memset(key, 0, sizeof key);
    struct context *c = new_context(ctx_token, ROLE_CLIENT);
    if (c == NULL) return SK_NO_MEMORY;
    c->role = ROLE_CLIENT;
    if (c->phase != PH_NEW) return SK_BAD_STATE;
    /* The _r forms: several threads may be in the module at once. */
    struct passwd pwd, *pw = NULL;
    char pwbuf[1024];
    if (getpwuid_r(geteuid(), &pwd, pwbuf, sizeof pwbuf, &pw) != 0 || pw == NULL ||
        strlen(pw->pw_name) > NAME_MAX_LEN)
        return SK_BAD_ARGUMENT;
    strcpy(c->name, pw->pw_name);
    if (fresh_nonce(c->nc) != 0) return SK_NO_MEMORY;
    unsigned char head[4 + NONCE_LEN + 1];
    memcpy(head, kHello, 4);
    memcpy(head + 4, c->nc, NONCE_LEN);
    head[4 + NONCE_LEN] = (unsigned char)strlen(c->name);
    qv_uint32_t rc = give(cbuff, head, sizeof head, c->name, strlen(c->name));
    if (rc != 0) return rc;
    c->phase = PH_SENT_HELLO;
    /* On a failure above, the library ends the context with mpm_end_context. */
    return MPM_S_CONTINUE;
}

/* The server's first round reads the hello and answers with its proof; the
 * second checks the client's proof. A failure here must never be major
 * status 2: in the first round that makes the client an unauthenticated
 * success. */
static qv_uint32_t server_hello(struct context *c, const unsigned char *in, size_t len, sec_buffer_t sbuff) {
    if (len < 4 + NONCE_LEN + 1 || differ(in, kHello, 4)) return EXCHANGE_FAILED(SK_BAD_TOKEN);
    size_t n = in[4 + NONCE_LEN];
    if (n == 0 || len != 4 + NONCE_LEN + 1 + n) return EXCHANGE_FAILED(SK_BAD_TOKEN);
    if (memchr(in + 4 + NONCE_LEN + 1, '\0', n) != NULL) return EXCHANGE_FAILED(SK_BAD_TOKEN);
    memcpy(c->nc, in + 4, NONCE_LEN);
    memcpy(c->name, in + 4 + NONCE_LEN + 1, n);
    c->name[n] = '\0';
    if (fresh_nonce(c->ns) != 0) return SK_NO_MEMORY;
    unsigned char head[4 + NONCE_LEN], proof[MAC_LEN];
    qv_uint32_t rc = derive(c, "S", 1, proof);
    if (rc != 0) return rc;
    memcpy(head, kReply, 4);
    memcpy(head + 4, c->ns, NONCE_LEN);
    rc = give(sbuff, head, sizeof head, proof, MAC_LEN);
    if (rc != 0) return rc;
    c->phase = PH_SENT_REPLY;
    return MPM_S_CONTINUE;
}

static qv_uint32_t server_proof(qv_uint32_t *min_stat, struct context *c, const unsigned char *in, size_t len) {
    unsigned char want[MAC_LEN];
    if (len != 4 + MAC_LEN || differ(in, kProof, 4)) return SK_BAD_TOKEN;
    qv_uint32_t rc = derive(c, "C", 1, want);
    if (rc != 0) return rc;
    if (differ(in + 4, want, MAC_LEN)) {
        *min_stat = 1;
        return SK_BAD_PROOF;
    }
    rc = derive(c, "K", 0, c->session);
    if (rc != 0) return rc;
    c->phase = PH_COMPLETE;
    return 0; /* complete, and nothing more to send */
}

qv_uint32_t mpm_receive_sec_context(qv_uint32_t *min_stat, void *svc_tkn, sec_buffer_t cbuff, void **ctx_tkn,
                                    sec_buffer_t sbuff, qv_uint32_t *rflags) {
    (void)svc_tkn;
    *min_stat = 0;
    sbuff->length = 0;
    sbuff->value = NULL;
    if (cbuff->length < 0 || (cbuff->length > 0 && cbuff->value == NULL)) return SK_BAD_ARGUMENT;
    struct context *c = new_context(ctx_tkn, ROLE_SERVER);
    if (c == NULL) return SK_NO_MEMORY;
    if (c->phase == PH_NEW) c->role = ROLE_SERVER;
    if (c->role != ROLE_SERVER) return SK_BAD_STATE;
    const unsigned char *in = cbuff->value;
    size_t len = (size_t)cbuff->length;
    qv_uint32_t rc;
    if (c->phase == PH_NEW)
        rc = server_hello(c, in, len, sbuff);
    else if (c->phase == PH_SENT_REPLY)
        rc = server_proof(min_stat, c, in, len);
    else
        rc = SK_BAD_STATE;
    if (rflags != NULL) *rflags = c->phase == PH_COMPLETE ? CTX_FLAG_MUTUAL : 0;
    return rc;
}

qv_uint32_t mpm_complete_sec_context(qv_uint32_t *min_stat, sec_buffer_t sbuff, void *token, sec_buffer_t cbuff) {
    *min_stat = 0;
    cbuff->length = 0;
    cbuff->value = NULL;
    struct context *c = token;
    if (c == NULL || c->role != ROLE_CLIENT || c->phase != PH_SENT_HELLO) return SK_BAD_STATE;
    const unsigned char *in = sbuff->value;
    if (sbuff->length != 4 + NONCE_LEN + MAC_LEN || in == NULL || differ(in, kReply, 4)) return SK_BAD_TOKEN;
    memcpy(c->ns, in + 4, NONCE_LEN);
    unsigned char want[MAC_LEN], proof[4 + MAC_LEN];
    qv_uint32_t rc = derive(c, "S", 1, want);
    if (rc != 0) return rc;
    if (differ(in + 4 + NONCE_LEN, want, MAC_LEN)) {
        *min_stat = 1;
        return SK_BAD_PROOF;
    }
    memcpy(proof, kProof, 4);
    if ((rc = derive(c, "C", 1, proof + 4)) != 0 || (rc = derive(c, "K", 0, c->session)) != 0) return rc;
    rc = give(cbuff, proof, sizeof proof, NULL, 0);
    if (rc != 0) return rc;
    c->phase = PH_COMPLETE;
    return 0; /* complete here; the output still goes to the server */
}

/* Called by sec_end_context, and by the library after a failed round: the
 * handle may be NULL, or one whose exchange never finished. */
qv_uint32_t mpm_end_context(qv_uint32_t *min_stat, void *token) {
    *min_stat = 0;
    if (token != NULL) {
        memset(token, 0, sizeof(struct context));
        free(token);
    }
    return 0;
}

/* ---- using a context ---- */

static struct context *complete_context(void *token) {
    struct context *c = token;
    return c != NULL && c->role != ROLE_IDENTITY && c->phase == PH_COMPLETE ? c : NULL;
}

qv_uint32_t mpm_get_ctx_lifetime(qv_uint32_t *min_stat, void *token, qv_int32_t *lifetime) {
    (void)token;
    *min_stat = 0;
    *lifetime = LIFETIME;
    return 0;
}

qv_uint32_t mpm_get_ctx_flags(qv_uint32_t *min_stat, void *token, qv_uint32_t *flags) {
    *min_stat = 0;
    const struct context *c = token;
    *flags = c != NULL && c->phase == PH_COMPLETE ? CTX_FLAG_MUTUAL : 0;
    return 0;
}

/* MAC over direction, sequence number and data. */
static int seal_mac(const struct context *c, int from_client, const unsigned char seq[8], const void *data,
                    size_t len, unsigned char out[MAC_LEN]) {
    unsigned char dir = from_client ? 'c' : 's';
    struct iovec parts[3] = {{&dir, 1}, {(void *)seq, 8}, {(void *)data, len}};
    return hmac(c->session, parts, 3, out);
}

qv_uint32_t mpm_prepare_data(qv_uint32_t *min_stat, void *token, qv_uint32_t flags, sec_buffer_t in,
                             sec_buffer_t out) {
    (void)flags; /* both protection modes authenticate; neither encrypts */
    *min_stat = 0;
    out->length = 0;
    out->value = NULL;
    struct context *c = complete_context(token);
    if (c == NULL) return SK_BAD_STATE;
    if (in->length <= 0 || in->value == NULL || in->length > 0x7fffffff - 8 - MAC_LEN) return SK_BAD_ARGUMENT;
    size_t n = (size_t)in->length;
    unsigned char *p = malloc(8 + n + MAC_LEN);
    if (p == NULL) return SK_NO_MEMORY;
    big_endian(c->send_seq, p);
    memcpy(p + 8, in->value, n);
    if (seal_mac(c, c->role == ROLE_CLIENT, p, in->value, n, p + 8 + n) != 0) {
        free(p);
        return SK_NO_MEMORY;
    }
    c->send_seq++;
    out->value = p;
    out->length = (qv_int32_t)(8 + n + MAC_LEN);
    return 0;
}

/* The output goes to the application, which releases it with
 * sec_release_buffer, that is free(): it must come from malloc. */
static void *application_memory(size_t n) {
#ifdef SKELETON_MISTAKE_FOREIGN_ALLOCATOR
    /* The mistake: memory from another allocator (sodium_malloc and its
     * like), which free() cannot take back. */
    void *p = mmap(NULL, n + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? NULL : (char *)p + 16;
#else
    return malloc(n);
#endif
}

qv_uint32_t mpm_process_data(qv_uint32_t *min_stat, void *token, sec_buffer_t in, sec_buffer_t out) {
    *min_stat = 0;
    out->length = 0;
    out->value = NULL;
    struct context *c = complete_context(token);
    if (c == NULL) return SK_BAD_STATE;
    if (in->length < 8 + 1 + MAC_LEN || in->value == NULL) return SK_BAD_TOKEN;
    const unsigned char *p = in->value;
    size_t n = (size_t)in->length - 8 - MAC_LEN;
    unsigned char seq[8], want[MAC_LEN];
    big_endian(c->recv_seq, seq);
    if (seal_mac(c, c->role != ROLE_CLIENT, seq, p + 8, n, want) != 0) return SK_NO_MEMORY;
    /* A wrong sequence number fails the MAC too: replays are refused. */
    if (differ(p, seq, 8) | differ(p + 8 + n, want, MAC_LEN)) return SK_BAD_PROOF;
    void *plain = application_memory(n);
    if (plain == NULL) return SK_NO_MEMORY;
    memcpy(plain, p + 8, n);
    c->recv_seq++;
    out->value = plain;
    out->length = (qv_int32_t)n;
    return 0;
}

qv_uint32_t mpm_sign_data_v(qv_uint32_t *min_stat, void *token, qv_int32_t count, struct iovec *vector,
                            sec_buffer_t signature) {
    *min_stat = 0;
    signature->length = 0;
    signature->value = NULL;
    struct context *c = complete_context(token);
    if (c == NULL || count < 0) return c == NULL ? SK_BAD_STATE : SK_BAD_ARGUMENT;
    unsigned char mac[MAC_LEN];
    if (hmac(c->session, vector, count, mac) != 0) return SK_NO_MEMORY;
    return give(signature, mac, MAC_LEN, NULL, 0);
}

qv_uint32_t mpm_verify_data_v(qv_uint32_t *min_stat, void *token, sec_buffer_t signature, qv_int32_t count,
                              struct iovec *vector) {
    *min_stat = 0;
    struct context *c = complete_context(token);
    if (c == NULL || count < 0) return c == NULL ? SK_BAD_STATE : SK_BAD_ARGUMENT;
    if (signature->length == 0) return MPM_S_NO_SIGNATURE;
    unsigned char mac[MAC_LEN];
    if (hmac(c->session, vector, count, mac) != 0) return SK_NO_MEMORY;
    if (signature->length != MAC_LEN || signature->value == NULL || differ(signature->value, mac, MAC_LEN))
        return MPM_S_BAD_SIGNATURE;
    return 0;
}

#ifndef SKELETON_MISTAKE_NO_RELEASE_BUFFER
/* Every output but mpm_process_data's comes back here. */
qv_uint32_t mpm_release_buffer(qv_uint32_t *min_stat, sec_buffer_t buff) {
    *min_stat = 0;
    if (buff->value != NULL && buff->length > 0) memset(buff->value, 0, (size_t)buff->length);
    free(buff->value);
    buff->length = 0;
    buff->value = NULL;
    return 0;
}
#endif

/* ---- who the client is ---- */

static const struct context *named_context(void *token) {
    const struct context *c = token;
    return c != NULL && (c->role == ROLE_IDENTITY || (c->role == ROLE_SERVER && c->phase == PH_COMPLETE)) ? c : NULL;
}

qv_uint32_t mpm_get_client_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    *min_stat = 0;
    const struct context *c = named_context(token);
    if (c == NULL) return SK_BAD_STATE;
    char full[NAME_MAX_LEN + 8];
    strcpy(full, c->name);
    strcat(full, "@psk");
    return answer(full, (qv_int32_t)strlen(full) + 1, name_len, name);
}

#ifndef SKELETON_MISTAKE_NO_MAPPED_NAME
/* The local user of the same name, or length 0 when there is none. */
qv_uint32_t mpm_get_mapped_name(qv_uint32_t *min_stat, void *token, qv_int32_t *name_len, char *name) {
    *min_stat = 0;
    const struct context *c = named_context(token);
    if (c == NULL) return SK_BAD_STATE;
    struct passwd pwd, *pw = NULL;
    char pwbuf[1024];
    if (getpwnam_r(c->name, &pwd, pwbuf, sizeof pwbuf, &pw) != 0 || pw == NULL) return answer("", 0, name_len, name);
    return answer(c->name, (qv_int32_t)strlen(c->name) + 1, name_len, name);
}
#endif

qv_uint32_t mpm_get_client_id(qv_uint32_t *min_stat, void *token, qv_int32_t *id_len, char *id) {
    *min_stat = 0;
    const struct context *c = named_context(token);
    if (c == NULL) return SK_BAD_STATE;
    return answer(c->name, (qv_int32_t)strlen(c->name), id_len, id); /* raw bytes, no NUL */
}

qv_uint32_t mpm_create_id_context(qv_uint32_t *min_stat, qv_uint32_t flags, void *in, void **id_ctx) {
    *min_stat = 0;
    const char *name;
    size_t n;
    if (flags == MPM_IDCTX_FROM_CONTEXT) {
        const struct context *c = named_context(in);
        if (c == NULL) return SK_BAD_STATE;
        name = c->name;
        n = strlen(name);
    } else if (flags == MPM_IDCTX_FROM_NAME) {
        name = in;
        const char *at = strrchr(name, '@');
        if (at == NULL || strcmp(at, "@psk") != 0) return SK_BAD_TOKEN;
        n = (size_t)(at - name);
    } else {
        return SK_BAD_ARGUMENT;
    }
    if (n == 0 || n > NAME_MAX_LEN) return SK_BAD_TOKEN;
    struct context *id = calloc(1, sizeof *id);
    if (id == NULL) return SK_NO_MEMORY;
    id->role = ROLE_IDENTITY;
    memcpy(id->name, name, n);
    *id_ctx = id; /* freed by mpm_end_context */
    return 0;
}

qv_uint32_t mpm_get_ctx_mpm(qv_uint32_t *min_stat, void *token, char *mpm) {
    (void)token;
    *min_stat = 0;
    strcpy(mpm, "skeleton");
    return 0;
}

qv_uint32_t mpm_user_valid(qv_uint32_t *min_stat, void *token, char *username) {
    *min_stat = 0;
    const struct context *c = named_context(token);
    if (c == NULL) return SK_BAD_STATE;
    return strcmp(c->name, username) == 0 ? 0 : MPM_S_USER_NOT_VALID;
}
