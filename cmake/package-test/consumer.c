/* Enhances one frame through the C ABI of an installed qimra. */
#include <qimra/qimra.h>

#include <stdio.h>
#include <string.h>

static uint8_t frame[64 * 64 * 3 / 2];

int main(void) {
    memset(frame, 40, sizeof frame);
    qimra_ctx* q = qimra_init(64, 64, 0.5f, 0, 0, 0, 0, 0, 0, 0);
    if (q == NULL) return 1;
    qimra_process(q, frame, 64, 64, frame, 64, 64);
    qimra_frame_report r;
    const int got = qimra_get_frame_report(q, &r);
    qimra_deinit(q);
    printf("consumer: frame %d enhanced %d\n", (int)r.frame, (int)r.enhanced);
    return got == 0 && r.enhanced == 1 ? 0 : 1;
}
