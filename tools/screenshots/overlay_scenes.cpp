#include "fakesession.h"
#include "overlaypanel.h"
#include "scenes.h"

using namespace Qt::StringLiterals;

namespace {

// The panel with a session of its own, which must outlive it: the session is the first base.
struct SessionHolder {
    FakeSession fake;
};

class ScenePanel : private SessionHolder, public OverlayPanel {
public:
    explicit ScenePanel(const std::function<void(FakeSession&)>& setUp)
        : OverlayPanel(fake.session(), fake.settings()) {
        setUp(fake);
    }
};

Scene scene(const QString& name, std::function<void(FakeSession&)> setUp) {
    return {name, [setUp] { return std::make_unique<ScenePanel>(setUp); }};
}

const QString question = u"How would you design a rate limiter for a public API?"_s;

const QString answer =
    uR"(I'd use a **token bucket** per client, kept in Redis so that every API node shares it.

- Each key holds `tokens` and `updated_at`; refill on read.
- Reject with **429** and a `Retry-After` header when the bucket is empty.
- Start at 100 requests a minute and tune from real traffic.

```python
def allow(key, now):
    tokens = refill(key, now)
    return take(key, tokens)
```)"_s;

SceneRegistration registration{
    scene(u"overlay-idle"_s, [](FakeSession&) {}),
    scene(u"overlay-listening"_s,
          [](FakeSession& fake) {
              fake.listen();
              fake.say(Speaker::interviewer, u"Thanks for joining. I've read your resume, it looks great."_s);
              fake.say(Speaker::me, u"Thank you, I'm glad to be here."_s);
              fake.hear(Speaker::interviewer,
                        u"So tell me about a time you had to change a design late in"_s);
              fake.hear(Speaker::me, u"Sure, at my last"_s);
          }),
    scene(u"overlay-answer"_s,
          [](FakeSession& fake) {
              fake.listen();
              fake.say(Speaker::interviewer, u"Let's do a design question."_s);
              fake.say(Speaker::interviewer, question);
              fake.ask(question);
              // Streamed in pieces, as the backend sends it.
              for (qsizetype at = 0; at < answer.size(); at += 24) {
                  fake.answerPiece(answer.mid(at, 24));
              }
          }),
    scene(u"overlay-notice"_s,
          [](FakeSession& fake) {
              fake.listen();
              fake.say(Speaker::interviewer, u"Can you hear me all right?"_s);
              fake.failStream(Speaker::interviewer, u"Reconnecting to speech service\u2026"_s);
          }),
};

}  // namespace
