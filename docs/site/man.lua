-- What the guide's Markdown needs to become a man page.

local widest = 70      -- columns of a table that stays one
local narrow = 26      -- columns of all cells but the last, in a table whose last column is broken
local shortest = 45    -- columns of cells that share a line in a list
local plainTitles = {meaning = true, ["what happened"] = true, ["what is wrong"] = true,
                     ["what the daemon does"] = true}

local text = pandoc.utils.stringify

local function widths(simple)
  local found = {}
  local rows = {simple.headers, table.unpack(simple.rows)}
  for _, row in ipairs(rows) do
    for column, cell in ipairs(row) do
      found[column] = math.max(found[column] or 0, utf8.len(text(cell)) or 0)
    end
  end
  return found
end

local function titled(title, cell)
  local words = pandoc.utils.blocks_to_inlines(cell)
  if plainTitles[title] then return words end
  return pandoc.Inlines({pandoc.Str(title .. ":"), pandoc.Space(), table.unpack(words)})
end

-- The first cell is the term. Neighbours with short cells share a line of what is said of it.
local function listOf(simple, wide)
  local items = {}
  for _, row in ipairs(simple.rows) do
    local said = pandoc.Inlines({})
    local wasShort = false
    for column = 2, #row do
      local isShort = wide[column] <= shortest
      if text(row[column]) ~= "" then
        if #said > 0 and isShort and wasShort then
          said:extend({pandoc.Str(";"), pandoc.Space()})
        elseif #said > 0 then
          said:insert(pandoc.LineBreak())
        end
        local title = #row > 2 and text(simple.headers[column]) or "meaning"
        said:extend(titled(title, row[column]))
        wasShort = isShort and not plainTitles[title]
      end
    end
    table.insert(items, {pandoc.utils.blocks_to_inlines(row[1]), {{pandoc.Plain(said)}}})
  end
  return pandoc.DefinitionList(items)
end

function Table(element)
  local simple = pandoc.utils.to_simple_table(element)
  local wide = widths(simple)
  local sum = 0
  for _, columns in ipairs(wide) do sum = sum + columns + 3 end
  local others = sum - wide[#wide] - 3 * #wide
  if sum <= widest then
    for column in ipairs(wide) do simple.widths[column] = 0 end
  elseif #wide > 2 and others <= narrow then
    for column, columns in ipairs(wide) do
      local share = column < #wide and columns + 1 or widest - others - 3 * #wide
      simple.widths[column] = share / widest
    end
  else
    return listOf(simple, wide)
  end
  return pandoc.utils.from_simple_table(simple)
end

-- A link to another page of the guide is its text; a bare file name becomes the man page of it.
function Link(element)
  if element.target:match("^https?:") then return nil end
  local manual = PANDOC_WRITER_OPTIONS.variables[text(element.content)]
  if not manual then return element.content end
  local place, name, section = tostring(manual):match("^(.-)(%S+)%((%d)%)$")
  if not name then return pandoc.Str(tostring(manual)) end
  return {pandoc.Str(place), pandoc.Strong(name), pandoc.Str("(" .. section .. ")")}
end

-- A declaration stands further left than what is said of it.
function CodeBlock(element)
  if not element.classes:includes("signature") then return nil end
  local roff = element.text:gsub("\\", "\\e"):gsub("-", "\\-")
  return pandoc.RawBlock("man", ".PP\n.nf\n\\f[B]" .. roff .. "\\f[R]\n.fi")
end

function Image() return {} end
