/* Sets a parameter and reads it back: get_set NAME [VALUE]. */
#include <kelbus.h>
#include <stdio.h>

enum { LIMIT_MS = 2000 };

static int failed(const kelbus* client, kelbus_error error) {
    const char* message = kelbus_message(client);
    fprintf(stderr, "get_set: %s\n", message[0] != '\0' ? message : kelbus_strerror(error));
    return 1;
}

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: get_set NAME [VALUE]\n");
        return 2;
    }
    kelbus* client = NULL;
    kelbus_error error = kelbus_open(&client);
    char* value = NULL;
    if (error == KELBUS_OK && argc == 3) {
        error = kelbus_set(client, argv[1], argv[2], KELBUS_SET, LIMIT_MS);
    }
    if (error == KELBUS_OK) {
        error = kelbus_get(client, argv[1], &value, LIMIT_MS);
    }
    if (error == KELBUS_OK) {
        printf("%s=%s\n", argv[1], value);
    }
    const int status = error == KELBUS_OK ? 0 : failed(client, error);
    kelbus_free(value);
    kelbus_close(client);
    return status;
}
