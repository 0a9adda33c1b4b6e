#include "app/prompt.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <histedit.h>
#include <langinfo.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "app/commands.h"

namespace studio {

namespace {

constexpr auto readable = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);

class Pipe : public Prompt {
 public:
  Pipe(OnLine onLine, OnEnd onEnd) : onLine_(std::move(onLine)), onEnd_(std::move(onEnd)) {
    watch_ = g_unix_fd_add(
        STDIN_FILENO, readable,
        [](gint, GIOCondition, gpointer self) -> gboolean { return static_cast<Pipe*>(self)->read(); }, this);
  }
  ~Pipe() override {
    if (watch_ != 0) g_source_remove(watch_);
  }

 private:
  static constexpr std::size_t longestLine = 65'536;

  gboolean read() {
    char piece[4096];
    const ssize_t count = ::read(STDIN_FILENO, piece, sizeof piece);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return G_SOURCE_CONTINUE;
    if (count <= 0) {
      watch_ = 0;
      if (!unread_.empty()) onLine_(std::exchange(unread_, {}));
      onEnd_();
      return G_SOURCE_REMOVE;
    }
    unread_.append(piece, static_cast<std::size_t>(count));
    for (std::size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
      const std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      onLine_(line);
    }
    // What never ends is no command; its parts will be refused one by one.
    if (unread_.size() > longestLine) onLine_(std::exchange(unread_, {}));
    return G_SOURCE_CONTINUE;
  }

  OnLine onLine_;
  OnEnd onEnd_;
  guint watch_;
  std::string unread_;
};

class Terminal : public Prompt {
 public:
  Terminal(Output& output, OnLine onLine, OnEnd onEnd)
      : output_(output), onLine_(std::move(onLine)), onEnd_(std::move(onEnd)), history_(history_init()) {
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
    HistEvent event;
    history(history_, &event, H_SETSIZE, 500);
    history(history_, &event, H_SETUNIQUE, 1);
    // The prompt goes to standard error: standard output has reports and nothing else.
    editor_ = el_init("zarvo-studio", stdin, stderr, stderr);
    el_set(editor_, EL_CLIENTDATA, this);
    el_set(
        editor_, EL_PROMPT, +[](EditLine*) {
          static char text[] = "studio> ";
          return text;
        });
    el_set(editor_, EL_EDITOR, "emacs");
    el_set(editor_, EL_HIST, history, history_);
    el_set(editor_, EL_ADDFN, "studio-end", "End the studio", endKey);
    el_set(editor_, EL_BIND, "^D", "studio-end", nullptr);
    el_set(editor_, EL_ADDFN, "studio-complete", "Complete a command", completeKey);
    el_set(editor_, EL_BIND, "\t", "studio-complete", nullptr);
    el_source(editor_, nullptr);

    output_.before = [this] { hide(); };
    output_.after = [this] { show(); };
    watch_ = g_unix_fd_add(
        STDIN_FILENO, readable,
        [](gint, GIOCondition condition, gpointer self) -> gboolean {
          return static_cast<Terminal*>(self)->read(condition);
        },
        this);
    edit(true);
  }

  ~Terminal() override {
    output_.before = [] {};
    output_.after = [] {};
    if (watch_ != 0) g_source_remove(watch_);
    if (editing_) {
      hide();
      edit(false);
    }
    el_end(editor_);
    history_end(history_);
  }

 private:
  static unsigned char endKey(EditLine* editor, int) {
    const LineInfo* line = el_line(editor);
    if (line->lastchar != line->buffer) return CC_NORM;
    self(editor).ended_ = true;
    return CC_EOF;
  }

  static unsigned char completeKey(EditLine* editor, int) {
    const LineInfo* line = el_line(editor);
    const std::string beginning(line->buffer, line->cursor);
    std::vector<std::string> found;
    for (const CommandHelp& command : commandHelp()) {
      if (command.name.starts_with(beginning)) found.emplace_back(command.name);
    }
    if (found.size() == 1) {
      el_insertstr(editor, (found.front().substr(beginning.size()) + " ").c_str());
      return CC_REFRESH;
    }
    if (found.empty()) return CC_ERROR;
    std::string list;
    for (const std::string& name : found) list += name + "  ";
    self(editor).output_.note(list);
    return CC_REFRESH;
  }

  static Terminal& self(EditLine* editor) {
    void* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return *static_cast<Terminal*>(self);
  }

  // Begins a new line, with a prompt; or ends it and gives the terminal its own mode back.
  void edit(bool on) {
    editing_ = on;
    el_set(editor_, EL_UNBUFFERED, on ? 1 : 0);
  }

  void hide() {
    if (editing_) std::fputs("\r\033[J", stderr);
  }
  void show() {
    if (editing_) el_set(editor_, EL_REFRESH);
  }

  gboolean read(GIOCondition condition) {
    int count = 0;
    const char* text = (condition & G_IO_IN) ? el_gets(editor_, &count) : nullptr;
    // An empty line, too, is answered as if the input had ended.
    if (ended_ || (condition & (G_IO_HUP | G_IO_ERR))) {
      watch_ = 0;
      hide();
      edit(false);
      onEnd_();
      return G_SOURCE_REMOVE;
    }
    if (!text || count <= 0 || text[count - 1] != '\n') return G_SOURCE_CONTINUE;
    const std::string line(text, static_cast<std::size_t>(count - 1));
    edit(false);
    HistEvent event;
    if (!line.empty()) history(history_, &event, H_ENTER, line.c_str());
    onLine_(line);
    edit(true);
    return G_SOURCE_CONTINUE;
  }

  Output& output_;
  OnLine onLine_;
  OnEnd onEnd_;
  History* history_;
  EditLine* editor_;
  guint watch_ = 0;
  bool editing_ = false;
  bool ended_ = false;
};

}  // namespace

std::unique_ptr<Prompt> Prompt::open(Output& output, OnLine onLine, OnEnd onEnd) {
  if (isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1) {
    return std::make_unique<Terminal>(output, std::move(onLine), std::move(onEnd));
  }
  return std::make_unique<Pipe>(std::move(onLine), std::move(onEnd));
}

}  // namespace studio
