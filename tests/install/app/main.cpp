// Uses an installed qz through its C interface and one of its generic headers.
#include <vm_wrapper>
#include <QZ/QZGRAPH>
#include <QZ/QZMISC>

#include <cstdio>

int main() {
    void* ctx = create_ctx();
    const char* lines[] = {"KXX 3", "INC KXX;"};
    ctx_set_code(ctx, const_cast<char**>(lines), 2);
    run_ctx(ctx);
    QZ::vm_t::VarType v;
    QZ::vm_t::TypeType t;
    const bool found = QZ::vm_t::lookupRegister("LAM", v, t);
    QZ::Chain<unsigned int> chain(5);
    std::printf("version=%zu KXX=%zu LAM=%d edges=%u\n", version(), ctx_read_reg(ctx, const_cast<char*>("KXX")),
                found ? (int)t : -1, chain.edges());
    destroy_ctx(ctx);
    return 0;
}
