#include "daemon/store/pacing.h"

namespace obregd {

namespace {

constexpr int FlushPiece = 1024 * 1024;

} // namespace

Pacing::Pacing(sqlite3* pConnection)
{
    if (sqlite3_file_control(pConnection, "main", SQLITE_FCNTL_FILE_POINTER, &m_pFile) != SQLITE_OK ||
        m_pFile == nullptr || m_pFile->pMethods == nullptr) {
        m_pFile = nullptr; // then it is flushed at the end, as ever
        return;
    }
    static_cast<sqlite3_io_methods&>(m_methods) = *m_pFile->pMethods;
    m_methods.pOriginal = m_pFile->pMethods;
    m_methods.xWrite = write;
    m_pFile->pMethods = &m_methods;
}

Pacing::~Pacing()
{
    if (m_pFile != nullptr)
        m_pFile->pMethods = m_methods.pOriginal;
}

int Pacing::write(sqlite3_file* pFile, const void* pData, int length, sqlite3_int64 offset)
{
    auto& self = const_cast<Methods&>(static_cast<const Methods&>(*pFile->pMethods));
    const int result = self.pOriginal->xWrite(pFile, pData, length, offset);
    self.unflushed += length;
    if (result != SQLITE_OK || self.unflushed < FlushPiece)
        return result;
    self.unflushed = 0;
    return self.pOriginal->xSync(pFile, SQLITE_SYNC_NORMAL | SQLITE_SYNC_DATAONLY);
}

} // namespace obregd
