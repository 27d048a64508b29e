/* Sets a parameter to a value that its rule allows: set_checked NAME VALUE */
#include <kelbus.h>
#include <kelbus_catalog.h>

#include <stdio.h>

int main(int argc, char** argv) {
    kelbus* bus = NULL;
    kelbus_catalog* catalog = NULL;
    kelbus_error error;
    if (argc != 3) {
        fputs("usage: set_checked NAME VALUE\n", stderr);
        return 2;
    }
    if (kelbus_open(&bus) != KELBUS_OK || kelbus_catalog_open(&catalog) != KELBUS_OK) {
        fputs("set_checked: out of memory\n", stderr);
        return 2;
    }
    error = kelbus_catalog_check(catalog, argv[1], argv[2]);
    if (error != KELBUS_OK) {
        fprintf(stderr, "set_checked: %s\n", kelbus_catalog_message(catalog));
    } else if ((error = kelbus_set(bus, argv[1], argv[2], KELBUS_SET, 2000)) != KELBUS_OK) {
        fprintf(stderr, "set_checked: %s\n", kelbus_message(bus));
    }
    kelbus_catalog_close(catalog);
    kelbus_close(bus);
    return error != KELBUS_OK;
}
