// A store of a test's own, without a daemon: written, damaged and checked at will.
#ifndef OBREG_TESTS_WITH_STORE_H
#define OBREG_TESTS_WITH_STORE_H

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/store/maintenance.h"
#include "daemon/store/store.h"
#include "support/temporary_folder.h"

class WithStore : public testing::Test {
protected:
    WithStore() { m_pWriter.emplace(m_path); }

    template <class Work>
    void commit(Work work)
    {
        m_pWriter->begin();
        work(*m_pWriter);
        m_pWriter->commit();
    }

    /// A key of the machine's with values v0, v1, ...; the first one is number 16.
    obregd::KeyId makeKey(int values, const std::string& data = "data", obregd::Owner owner = obregd::MachineOwner)
    {
        obregd::KeyId key = 0;
        commit([&](obregd::WritableStore& store) {
            key = store.addKey(obregd::MachineId, "key" + std::to_string(++m_keys), owner);
            for (int i = 0; i < values; ++i)
                set(key, "v" + std::to_string(i), data);
        });
        return key;
    }

    void set(obregd::KeyId key, const std::string& name, const std::string& data)
    {
        m_pWriter->setValue(key, name, 1, data.data(), static_cast<UINT32>(data.size()));
    }

    void fromOutside(const std::string& sql) { SQLite::Database(m_path, SQLite::OPEN_READWRITE).exec(sql); }
    void expectSound() { EXPECT_EQ(obregd::checkStore(m_path).problems, std::vector<std::string>()); }

    const TemporaryFolder m_folder;
    const std::string m_path = m_folder / "store";
    std::optional<obregd::WritableStore> m_pWriter;
    int m_keys = 0;
};

#endif
