/**
 * @file
 * Holds the precompiled headers of the tests, and does nothing.
 */
int main() {
    return 0;
}
