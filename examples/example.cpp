// example.cpp - the same in C++: keys close themselves, values are C++ types, errors are exceptions.
#include <iostream>
#include <obreg/registry.hpp>

int main()
try {
    using namespace obreg;
    const Key key = Key::create(currentUser(), "Software\\Example");

    key.set("Title", "Field notes");
    key.set("FontSize", UINT32{14});
    key.set("Recent", StringList{"birds.txt", "moths.txt"});

    std::cout << "Title is " << key.get<std::string>("Title") << '\n';
    for (const std::string& file : key.get<StringList>("Recent"))
        std::cout << "recently " << file << '\n';
    for (const auto& [name, value] : key.values())
        std::cout << name << ": type " << value.type << ", " << value.data.size() << " bytes\n";

    std::error_code error; // the other form of every operation
    key.get<UINT32>("Missing", error);
    if (error != Status::notFound)
        throw std::system_error(error, "Missing");
    return 0;
} catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
}
