// The platform's own bcrypt.dll behind this one.
#ifndef KELDA_STANDINS_BCRYPT_FORWARDING_H_
#define KELDA_STANDINS_BCRYPT_FORWARDING_H_

namespace standin {

// The platform's BCryptFreeBuffer.
void FreeByPlatform(void* block);

}  // namespace standin

#endif  // KELDA_STANDINS_BCRYPT_FORWARDING_H_
