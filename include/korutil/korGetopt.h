// korGetopt.h - the options of a command line, short and long, one at a time.
//
// The place reached is kept in the library, one for the process. Nothing is raised and nothing is locked: one thread
// parses, before it starts others. Errors give '?' and, unless they are silenced, a line on standard error.
//
//     static const spamc_option options[] = {{"port", 1, NULL, 'p'}, {"verbose", 0, NULL, 'v'}, {NULL, 0, NULL, 0}};
//     int option;
//     while ((option = spamc_getopt_long(argc, argv, "p:v", options, NULL)) != -1) {
//         ...                                  // 'p' with spamc_get_optarg(), 'v', or '?'
//     }
//     ...                                      // the rest of argv begins at spamc_get_optind()
//
// The option text names the short options, each with a ':' behind it if it takes an argument. What is peculiar to each
// form: spamc_getopt reads clusters ("-ab"), an argument is always the next element of argv, even one that looks like
// an option, and "--" is passed over. spamc_getopt_long reads one option from each element, an argument that is an
// element of its own must not begin with '-', and "--" is left where it is.

#ifndef KORUTIL_KORGETOPT_H
#define KORUTIL_KORGETOPT_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// A long option. A table of them ends with a NULL name.
typedef struct spamc_option {
    const char* name; ///< without the dashes
    int has_arg;      ///< 0 = takes no argument, 1 = needs one, 2 = may have one
    int* flag;        ///< where `val` goes; NULL = it is the result
    int val;          ///< what the option stands for
} spamc_option;

/// The next short option: its character; '?' for an error; -1 at the end of the options. `spamc_get_optarg` then tells
/// the argument of an option that has one. A value cannot be joined to its letter: what follows the letter in its
/// cluster is dropped.
KOR_API int spamc_getopt(int argc, char* const* argv, const char* options);

/// The next option, long or short: the character of a short one; `val` of a long one, or 0 if `val` went to its `flag`;
/// '?' for an error; -1 at the end. A long option may be shortened to any beginning of its name; the first row that
/// matches is taken, and `*index`, unless NULL, gets its number. The argument of a long option stands behind '=' or in
/// the next element. `spamc_get_optarg` is NULL if there is none.
KOR_API int spamc_getopt_long(int argc, char* const* argv, const char* options, const spamc_option* table, int* index);

KOR_API char* spamc_get_optarg(void); ///< the argument of the option given last
KOR_API int spamc_get_optind(void);   ///< the number of the next element of argv; starts at 1
KOR_API int spamc_get_opterr(void);   ///< 1 = errors are told on standard error
KOR_API int spamc_get_optopt(void);   ///< the short option that went wrong last

/// Goes on, or starts anew, at element `index` of argv.
KOR_API void spamc_set_optind(int index);

KOR_END_DECLS

#endif
