#include <asm/uaccess.h>
