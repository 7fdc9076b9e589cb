<%

' The framework's look: the row style every cell uses.
Dim cellStyle
cellStyle = "framework"
%>
<!-- #include file="../Scripts/builder.vbs" -->
