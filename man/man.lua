-- Turns a page template (man/*.md) into a manual page: includes the parts of
-- docs/ it names, so the pages and docs/ never hold two texts, and shapes
-- the result the way manual pages are written.
--
--   <!-- include docs/FILE.md -->             the whole file but its title
--   <!-- include docs/FILE.md "Heading" -->   one "##" section of it
--
-- Included "##" headings become sections, "###" subsections.

local function read_doc(path)
  local f = io.open(path, 'r')
  if not f then error('man.lua: cannot read ' .. path) end
  local text = f:read('a')
  f:close()
  return pandoc.read(text, 'gfm').blocks
end

-- The blocks of `blocks` under the level-2 heading `name` (all but the
-- level-1 title when `name` is nil), with every heading one level up.
local function section(blocks, name, path)
  local out, inside = pandoc.List(), name == nil
  local found = name == nil
  for _, b in ipairs(blocks) do
    if b.t == 'Header' and b.level <= 2 and name ~= nil then
      inside = b.level == 2 and pandoc.utils.stringify(b) == name
      found = found or inside
    end
    if inside and not (b.t == 'Header' and b.level == 1) then
      if b.t == 'Header' then b.level = b.level - 1 end
      out:insert(b)
    end
  end
  if not found then error('man.lua: ' .. path .. ' has no section "' .. name .. '"') end
  return out
end

local function include(block)
  if block.t ~= 'RawBlock' or block.format ~= 'html' then return nil end
  local path, name = block.text:match('^<!%-%- include (%S+) "(.-)" %-%->%s*$')
  if not path then path = block.text:match('^<!%-%- include (%S+) %-%->%s*$') end
  if not path then return nil end
  return section(read_doc(path), name, path)
end

-- Text set in a code block, safe for roff: backslashes escaped, and no line
-- may start with a control character.
local function roff_literal(text)
  local lines = {}
  for line in (text .. '\n'):gmatch('(.-)\n') do
    line = line:gsub('\\', '\\e')
    if line:match("^[.']") then line = '\\&' .. line end
    table.insert(lines, line)
  end
  return table.concat(lines, '\n')
end

-- A code block, indented, after `space` (a paragraph break, or none).
local function code_block(c, space)
  return pandoc.RawBlock('man', space .. '.RS 4\n.EX\n' .. roff_literal(c.text) .. '\n.EE\n.RE')
end

local function expand(doc)
  local blocks = pandoc.List()
  for _, b in ipairs(doc.blocks) do
    local included = include(b)
    if included then blocks:extend(included) else blocks:insert(b) end
  end
  -- A paragraph or code block right after a heading needs no paragraph
  -- break of its own.
  for i = 2, #blocks do
    local after_heading = blocks[i - 1].t == 'Header'
    if blocks[i].t == 'Para' and after_heading then
      blocks[i] = pandoc.Plain(blocks[i].content)
    elseif blocks[i].t == 'CodeBlock' then
      blocks[i] = code_block(blocks[i], after_heading and '' or '.PP\n')
    end
  end
  doc.blocks = blocks
  return doc
end

local function cell_inlines(cell)
  local inlines = pandoc.List()
  for _, b in ipairs(cell.contents) do
    if b.content then inlines:extend(b.content) end
  end
  return inlines
end

-- A table becomes a tagged list, the way manual pages list things, so that
-- it fits any terminal: each row is tagged with its first cell; a second
-- cell is its text, more cells are labelled with their column's heading.
local function table_as_list(t)
  local headings = {}
  if #t.head.rows > 0 then
    for i, cell in ipairs(t.head.rows[1].cells) do headings[i] = cell_inlines(cell) end
  end
  local items = pandoc.List()
  for _, body in ipairs(t.bodies) do
    for _, row in ipairs(body.body) do
      local cells = row.cells
      local text = pandoc.List()
      for i = 2, #cells do
        if #cells > 2 then
          if i > 2 then text:insert(pandoc.RawInline('man', '\n.br\n')) end
          text:insert(pandoc.Emph(headings[i] or {}))
          text:insert(pandoc.Str(':'))
          text:insert(pandoc.Space())
        end
        text:extend(cell_inlines(cells[i]))
      end
      items:insert({ cell_inlines(cells[1]), { pandoc.Plain(text) } })
    end
  end
  return pandoc.DefinitionList(items)
end

local shape = {
  Table = table_as_list,
  Header = function(h)
    if h.level == 1 then
      return pandoc.Header(1, pandoc.utils.stringify(h):upper())
    end
  end,
  -- Literal words are set in bold, as manual pages do.
  Code = function(c) return pandoc.Strong(pandoc.Str(c.text)) end,
  -- Code blocks inside lists (the others are done above).
  CodeBlock = function(c) return code_block(c, '.sp\n') end,
  -- Links between the docs become their text; the pages name each other in
  -- SEE ALSO.
  Link = function(l)
    if not l.target:match('^%a+:') then return l.content end
  end,
}

return { { Pandoc = expand }, shape }
