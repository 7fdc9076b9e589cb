<%
Function FormatCell(content, cssClass, colspan, align)
  FormatCell = "<td class='" & cellStyle & "-" & LCase(cssClass) & "'>" & content & "</td>"
End Function
%>
