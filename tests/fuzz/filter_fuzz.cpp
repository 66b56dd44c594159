// Rule files, any content: the program and the model take or refuse the same files, make the same
// tables of them, and judge the same flows alike. Input: the file. No name is looked up anywhere.
#include <dlfcn.h>
#include <netdb.h>

#include <string>
#include <vector>

#include "base/heap.h"
#include "filter/filter_rules.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/model/filter_check.h"
#include "tests/support/text_file.h"

// Stands in front of the C library's: numbers are addresses, names are not found.
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    using function = int(const char*, const char*, const addrinfo*, addrinfo**);
    static auto* const real = reinterpret_cast<function*>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = hints ? *hints : addrinfo{};
    numeric.ai_flags = AI_NUMERICHOST;
    return real(name, service, &numeric, result);
}

namespace {

constexpr unsigned flow_count = 64;

// The lines as the program reads them; reading has a target of its own.
std::vector<std::string> lines_of(const char* path) {
    const kestrel::config_lines lines(read_config(path));
    std::vector<std::string> result;
    for (char** line = lines.get(); *line; ++line)
        result.emplace_back(*line);
    return result;
}

void compare(const filter_rules& rules, kestrel_model::filter_model& model, uint64_t seed) {
    const std::string difference = kestrel_model::compare_tables(rules, model);
    if (!difference.empty())
        kestrel_fuzz::fail(difference.c_str());
    kestrel_model::flow_generator flows(model, seed);
    for (unsigned i = 0; i < flow_count; ++i) {
        const kestrel_model::model_flow flow = flows.next();
        if (model.test(flow) != kestrel_model::judge_with_program(rules, flow))
            kestrel_fuzz::fail(kestrel_model::describe_flow(flow).c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    verbose_level = -2;
    const kestrel_test::text_file file({reinterpret_cast<const char*>(data), size});
    kestrel_model::filter_model model;
    const bool expected = model.load(lines_of(file.path()));
    const kestrel::filter_owner rules = kestrel::filter_load(file.path());
    if (expected != (rules != nullptr))
        kestrel_fuzz::fail(expected ? "a good file is refused" : "a faulty file is taken");
    if (rules)
        compare(*rules, model, size);
    return 0;
}
