#include <CLI/CLI.hpp>

int main(int argc, char** argv)
{
    CLI::App app{"kzol: keys, signing, inspection and checks for libkZOLUser"};
    app.require_subcommand(1);
    CLI11_PARSE(app, argc, argv);
    return 0;
}
