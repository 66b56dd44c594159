/* The boundary between the program and its plugins: C linkage, default visibility, nothing else.
 *
 * The program is built with hidden visibility; KX_API marks what a plugin may name. Every header in
 * this folder is plain C11 that is also C++20, and includes only what it needs.
 */
#ifndef KESTRELEXP_API_H
#define KESTRELEXP_API_H

#define KX_API __attribute__((visibility("default")))

#endif
