// Name of the access token used by the current request.
#include "session/token.h"

extern "C" {

char *last_token_name = nullptr;

void remove_last_token_name(void) {
    delete[] last_token_name;
    last_token_name = nullptr;
}
}
