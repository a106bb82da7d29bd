#include "agent/command_line.h"

#include <utility>

namespace agent {

namespace {

class CSplitter {
  public:
    explicit CSplitter(std::string_view strLine) : m_strRest(strLine) {}

    std::optional<std::vector<std::string>> Run() {
        while (!m_strRest.empty()) {
            if (!TakeNext()) {
                return std::nullopt;
            }
        }
        EndWord();
        return std::move(m_words);
    }

  private:
    char Pop() {
        const char ch = m_strRest.front();
        m_strRest.remove_prefix(1);
        return ch;
    }

    void Add(char ch) {
        m_strWord.push_back(ch);
        m_bInWord = true;
    }

    void EndWord() {
        if (m_bInWord) {
            m_words.push_back(std::move(m_strWord));
            m_strWord.clear();
            m_bInWord = false;
        }
    }

    bool TakeNext() {
        const char ch = Pop();
        switch (ch) {
        case ' ':
        case '\t':
        case '\n':
        case '\r':
            EndWord();
            return true;
        case '\\':
            return TakeEscaped("");
        case '\'':
        case '"':
            m_bInWord = true; // "" is a word
            return TakeQuoted(ch);
        default:
            Add(ch);
            return true;
        }
    }

    // What a backslash stands ahead of. Where strSpecial names the characters that it has a
    // meaning for, it stands for itself ahead of others.
    bool TakeEscaped(std::string_view strSpecial) {
        if (m_strRest.empty()) {
            return false;
        }
        const char ch = Pop();
        if (ch == '\n') {
            return true;
        }
        if (!strSpecial.empty() && strSpecial.find(ch) == std::string_view::npos) {
            Add('\\');
        }
        Add(ch);
        return true;
    }

    bool TakeQuoted(char chQuote) {
        while (!m_strRest.empty()) {
            const char ch = Pop();
            if (ch == chQuote) {
                return true;
            }
            if (ch == '\\' && chQuote == '"') {
                if (!TakeEscaped("\\\"$`")) {
                    return false;
                }
            } else {
                Add(ch);
            }
        }
        return false;
    }

    std::string_view m_strRest;
    std::string m_strWord;
    bool m_bInWord = false;
    std::vector<std::string> m_words;
};

} // namespace

std::optional<std::vector<std::string>> SplitCommandLine(std::string_view strLine) {
    return CSplitter(strLine).Run();
}

} // namespace agent
