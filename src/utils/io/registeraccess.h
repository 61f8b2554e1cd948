/* Old location of the register-access record, still included by two unit tests; remove once
 * they include utils/regmap/registeraccess.h. */
#include "utils/regmap/registeraccess.h"
