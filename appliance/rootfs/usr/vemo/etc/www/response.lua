-- Looks at each answer, errors and static files included, before it goes out.
local headers = lighty.r.resp_header

headers["X-Content-Type-Options"] = "nosniff"
headers["Referrer-Policy"] = "same-origin"
headers["Cross-Origin-Opener-Policy"] = "same-origin"
headers["Cross-Origin-Resource-Policy"] = "same-origin"

-- Kept, but asked for anew each time: a theme's file is another from one moment to the next.
if not headers["Cache-Control"] then headers["Cache-Control"] = "no-cache" end

-- A policy beside the one that a page sends itself: browsers enforce all of a list,
-- so a page whose own could not be made is not bare.
local minimal = "object-src 'none'; base-uri 'self'"
local own = headers["Content-Security-Policy"]
headers["Content-Security-Policy"] = own and (own .. ", " .. minimal) or minimal
