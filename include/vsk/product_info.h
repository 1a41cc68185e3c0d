/* The platform's model id.
 *
 * product_info_data() gives this routing engine's product record, whose first field is
 * the signed 16-bit model id; null when the platform has no such record. A program may
 * set product_infop itself, and then that record is used in place of the platform's. */
#ifndef VSK_PRODUCT_INFO_H
#define VSK_PRODUCT_INFO_H

#include <stdbool.h>
#include <stdint.h>

#include "vsk/export.h"

VSK_BEGIN_DECLS

typedef struct product_info {
  int16_t model_id;
  char model_name[30];
} product_info_t;

VSK_EXPORT extern product_info_t *product_infop;

VSK_EXPORT product_info_t *product_info_data(void);

VSK_END_DECLS

#endif /* VSK_PRODUCT_INFO_H */
