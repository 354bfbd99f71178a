"""What an answer says: the document of a refusal, the message of a failure."""

REFUSAL = ('{{\n   "errno" : {{\n      "key" : "{key}",\n      "section" : "{section}"\n   }},\n'
           '   "items" : [],\n   "success" : false,\n   "total" : 0\n}}\n')


def assert_refused(answer, reason, key, section="login"):
    assert answer.status == 200
    assert answer.all("x-request-error") == [reason]
    assert answer.header("Content-type") == 'text/plain; charset="UTF-8"'
    assert answer.text == REFUSAL.format(key=key, section=section)


def failure(answer):
    document = answer.json
    assert document["success"] is False
    return document["errinfo"]["sec"], document["errinfo"]["key"]
